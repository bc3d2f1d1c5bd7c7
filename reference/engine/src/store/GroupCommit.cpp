#include "store/GroupCommit.h"

#include <algorithm>
#include <utility>

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
  if (!db_.inTransaction() && db_.exec("BEGIN IMMEDIATE")) return false;
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
  std::lock_guard l(mutex_);
  // SQLite ends a transaction itself after some failures (a full disk);
  // then only rows held back are left to commit.
  if (db_.inTransaction() || deferred_) {
    noteWriteLocked(now);
  } else {
    open_ = false;
  }
  return ok;
}

void GroupCommit::noteWriteLocked(std::chrono::steady_clock::time_point now) {
  lastStep_ = now;
  if (open_) return;
  open_ = true;
  firstStep_ = now;
  wake_.notify_all();
}

std::unique_lock<std::mutex> GroupCommit::holdRows() {
  // The commit holds the lock only for as long as it takes to take the rows.
  while (commitWaits_.load(std::memory_order_acquire)) std::this_thread::yield();
  return std::unique_lock(held_);
}

std::size_t GroupCommit::addDeferredWriter(DeferredWriter writer) {
  std::lock_guard dbLock(db_.mutex());
  writers_.emplace_back(nextWriterId_, std::move(writer));
  return nextWriterId_++;
}

void GroupCommit::removeDeferredWriter(std::size_t id) {
  std::lock_guard dbLock(db_.mutex());
  std::erase_if(writers_, [&](const auto& w) { return w.first == id; });
}

void GroupCommit::deferred() {
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard l(mutex_);
  deferred_ = true;
  noteWriteLocked(now);
}

bool GroupCommit::flush() {
  // Every write is held back until a commit takes it, so admissions need
  // keeping out only until the rows are taken: the commit then writes and
  // syncs them while the next admissions go on.
  bool closed = closeGate();
  auto open = [&] {
    if (std::exchange(closed, false)) openGate();
  };
  bool ok;
  {
    std::lock_guard dbLock(db_.mutex());
    ok = commitLocked(open);
  }
  open();
  return ok;
}

std::vector<GroupCommit::ThreadAdmission>& GroupCommit::threadAdmissions() {
  // A thread is rarely inside more than one store's admission; a list keeps
  // two engines in one process apart.
  thread_local std::vector<ThreadAdmission> open;
  return open;
}

GroupCommit::ThreadAdmission* GroupCommit::threadAdmission(const GroupCommit* commits) {
  for (auto& a : threadAdmissions())
    if (a.commits == commits) return &a;
  return nullptr;
}

bool GroupCommit::closeGate() {
  if (admitting()) return false;  // this thread asked for it from inside
  std::unique_lock gate(gateMutex_);
  ++commitsWaiting_;
  gateChanged_.wait(gate, [&] { return admissions_ == 0 && !committing_; });
  --commitsWaiting_;
  committing_ = true;
  return true;
}

void GroupCommit::openGate() {
  {
    std::lock_guard gate(gateMutex_);
    committing_ = false;
  }
  gateChanged_.notify_all();
}

GroupCommit::Admission::Admission(GroupCommit& commits) : commits_(commits) {
  if (ThreadAdmission* mine = threadAdmission(&commits)) {
    ++mine->depth;
    return;
  }
  std::unique_lock gate(commits.gateMutex_);
  commits.gateChanged_.wait(gate,
                            [&] { return commits.commitsWaiting_ == 0 && !commits.committing_; });
  ++commits.admissions_;
  threadAdmissions().push_back({&commits, 1, {}});
}

GroupCommit::Admission::~Admission() {
  ThreadAdmission* mine = threadAdmission(&commits_);
  if (--mine->depth > 0) return;
  auto after = std::move(mine->after);
  std::erase_if(threadAdmissions(), [&](const auto& a) { return a.commits == &commits_; });
  {
    std::lock_guard gate(commits_.gateMutex_);
    --commits_.admissions_;
  }
  commits_.gateChanged_.notify_all();
  // Work handed over inside may open admissions of its own.
  for (auto& work : after) work();
}

bool GroupCommit::admitting() const { return threadAdmission(this) != nullptr; }

void GroupCommit::afterAdmission(std::function<void()> work) {
  if (ThreadAdmission* mine = threadAdmission(this))
    mine->after.push_back(std::move(work));
  else
    work();
}

void GroupCommit::abandon() {
  std::lock_guard dbLock(db_.mutex());
  writers_.clear();
  if (db_.inTransaction()) db_.exec("ROLLBACK");
  std::lock_guard l(mutex_);
  deferred_ = false;
  open_ = false;
}

std::uint64_t GroupCommit::commits() const {
  std::lock_guard l(mutex_);
  return commits_;
}

std::string GroupCommit::lastError() const {
  std::lock_guard l(mutex_);
  return lastError_;
}

bool GroupCommit::commitLocked(const std::function<void()>& taken) {
  bool held;
  {
    // Cleared before the writer runs: a row kept back while it runs is
    // seen by this commit or marks the next one due.
    std::lock_guard l(mutex_);
    held = std::exchange(deferred_, false);
    if (!db_.inTransaction() && !held) {
      open_ = false;
      return true;
    }
  }
  auto fail = [&](std::string error) {
    // The steps stay in the open transaction and the held rows with their
    // writer; the next attempt commits them.
    std::lock_guard l(mutex_);
    deferred_ = deferred_ || held;
    lastError_ = std::move(error);
    firstStep_ = lastStep_ = std::chrono::steady_clock::now();
    return false;
  };
  if (!db_.inTransaction()) {
    if (auto e = db_.exec("BEGIN IMMEDIATE")) return fail(*e);
  }
  const bool writing = held && !writers_.empty();
  if (writing) {
    // Every writer's rows as of one moment: a later writer's rows that refer
    // to an earlier one's never come without them.
    commitWaits_.store(true, std::memory_order_release);
    {
      std::lock_guard heldLock(held_);
      commitWaits_.store(false, std::memory_order_release);
      for (const auto& w : writers_) w.second.take();
    }
  }
  taken();
  auto failWriting = [&](std::string error) {
    if (writing) {
      std::lock_guard heldLock(held_);
      for (const auto& w : writers_) w.second.restore();
    }
    return fail(std::move(error));
  };
  if (writing) {
    if (!db_.prepared("SAVEPOINT held").run()) return failWriting(db_.lastError());
    const bool written = std::all_of(writers_.rbegin(), writers_.rend(),
                                     [](const auto& w) { return w.second.write(); });
    if (!written) {
      std::string error = db_.lastError();
      if (db_.inTransaction()) {
        db_.prepared("ROLLBACK TO held").run();
        db_.prepared("RELEASE held").run();
      }
      return failWriting(error);
    }
    if (!db_.prepared("RELEASE held").run()) return failWriting(db_.lastError());
  }
  if (auto e = db_.exec("COMMIT")) return failWriting(*e);
  if (writing)
    for (const auto& w : writers_) w.second.landed();
  std::lock_guard l(mutex_);
  ++commits_;
  open_ = deferred_;
  if (open_) firstStep_ = lastStep_ = std::chrono::steady_clock::now();
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
    // The gate comes first, then the database's mutex.
    l.unlock();
    flush();
    l.lock();
  }
}

}  // namespace zolvani::reference
