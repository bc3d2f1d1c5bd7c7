#include "store/GroupCommit.h"

namespace zolvani::reference {

GroupCommit::GroupCommit(Database& db, GroupCommitOptions options)
    : db_(db), options_(options), committer_([this] { run(); }) {}

GroupCommit::~GroupCommit() {
  {
    std::lock_guard l(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  committer_.join();
  flush();
}

bool GroupCommit::write(const std::function<bool()>& step) { return writeLocked(step, true); }

bool GroupCommit::writeStatement(const std::function<bool()>& statement) {
  return writeLocked(statement, false);
}

bool GroupCommit::writeLocked(const std::function<bool()>& step, bool savepoint) {
  std::lock_guard dbLock(db_.mutex());
  const auto now = std::chrono::steady_clock::now();
  bool opened = false;
  if (!db_.inTransaction()) {
    if (db_.exec("BEGIN IMMEDIATE")) return false;
    opened = true;
  }
  if (savepoint && !db_.prepared("SAVEPOINT step").run()) return false;
  bool ok = step();
  if (!savepoint) {
    // One statement lands whole or not at all by itself.
  } else if (ok) {
    ok = db_.prepared("RELEASE step").run();
  } else if (db_.inTransaction()) {
    db_.prepared("ROLLBACK TO step").run();
    db_.prepared("RELEASE step").run();
  }
  {
    std::lock_guard l(mutex_);
    // SQLite ends a transaction itself after some failures (a full disk);
    // then there is nothing left to commit.
    open_ = db_.inTransaction();
    if (opened) firstStep_ = now;
    lastStep_ = now;
  }
  // The committer is woken when a transaction opens; later steps only move
  // its deadline, which it reads when it wakes.
  if (opened) wake_.notify_all();
  return ok;
}

bool GroupCommit::flush() {
  std::lock_guard dbLock(db_.mutex());
  return commitLocked();
}

std::uint64_t GroupCommit::commits() const {
  std::lock_guard l(mutex_);
  return commits_;
}

std::string GroupCommit::lastError() const {
  std::lock_guard l(mutex_);
  return lastError_;
}

bool GroupCommit::commitLocked() {
  if (!db_.inTransaction()) {
    std::lock_guard l(mutex_);
    open_ = false;
    return true;
  }
  auto error = db_.exec("COMMIT");
  std::lock_guard l(mutex_);
  if (error) {
    // The steps stay in the open transaction; the next attempt commits them.
    lastError_ = *error;
    firstStep_ = lastStep_ = std::chrono::steady_clock::now();
    return false;
  }
  open_ = false;
  ++commits_;
  return true;
}

void GroupCommit::run() {
  std::unique_lock l(mutex_);
  while (!stopping_) {
    if (!open_) {
      wake_.wait(l);
      continue;
    }
    const auto due = std::min(lastStep_ + options_.quiet, firstStep_ + options_.longest);
    if (std::chrono::steady_clock::now() < due) {
      wake_.wait_until(l, due);
      continue;
    }
    // The database's mutex comes first.
    l.unlock();
    {
      std::lock_guard dbLock(db_.mutex());
      commitLocked();
    }
    l.lock();
  }
}

}  // namespace zolvani::reference
