// GroupCommit: many small atomic writes, few commits.
//
// Every write the engine makes (an asset's row, a save of the store context,
// a deletion) is a step: it runs inside one long-lived transaction, under a
// savepoint, so that the step lands whole or not at all. The transaction is
// committed once the writes pause for `quiet`, at the latest `longest` after
// its first step, and on flush(). A commit writes each changed page once,
// however many steps changed it: a sync that saves after every item costs the
// pages it changed, not a page set per item.
//
// A writer may also keep rows in memory and write them only as a commit
// begins (write-behind): it registers a writer that runs first inside the
// commit's transaction, and calls deferred() each time it keeps a row back,
// which schedules a commit as a step would. Rows so kept land in the same
// commit as the steps that ran after them, so a step that refers to such a
// row never lands without it.
//
// A process killed between commits loses the steps since the last commit, and
// only those: steps are committed in the order they ran, so the store always
// holds a prefix of them. A step that needs another to have landed (an item
// tracked in a feed needs its asset's row) runs after it, and so lands after
// it or not at all.
//
// Several writes that only make sense together (an asset and the feed record
// that tracks it) run inside one admission (Admission): while any admission is
// open no commit takes the rows held back, so its writes land in one commit or
// not at all. A
// commit that falls due waits for the open admissions to end, and a new
// admission waits for a waiting commit, so a stream of admissions never
// starves commits. A flush() from a thread inside an admission commits at once:
// that thread asked for it. Work that must follow the admission's commit (files
// removed after the row that owns them) is handed to afterAdmission().
//
// Thread-safety: write() and flush() may be called from any thread; both take
// the database's mutex. The committer runs on a thread of its own. Admissions
// nest on one thread; the gate comes before the database's mutex.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "store/Database.h"

namespace zolvani::reference {

struct GroupCommitOptions {
  std::chrono::milliseconds quiet{20};
  std::chrono::milliseconds longest{250};
};

class GroupCommit : public std::enable_shared_from_this<GroupCommit> {
 public:
  GroupCommit(Database& db, GroupCommitOptions options);
  // Commits what is pending.
  ~GroupCommit();
  GroupCommit(const GroupCommit&) = delete;
  GroupCommit& operator=(const GroupCommit&) = delete;

  // Runs `step` as one atomic write: when it returns false, or a statement of
  // the savepoint fails, nothing it did stays. Returns the step's outcome.
  bool write(const std::function<bool()>& step);
  // The same for a step of one statement, which SQLite already makes atomic:
  // no savepoint is needed around it.
  bool writeStatement(const std::function<bool()>& statement);
  // A writer of rows kept back in memory. A commit takes every writer's rows
  // at once, under the held rows' lock (take()), then lets the lock go and
  // writes them under the database's mutex, inside its transaction (write(),
  // false when a row could not be written). Writers go on keeping rows back
  // meanwhile, for the next commit. When the commit succeeds the taken rows
  // are dropped (landed()); when it fails nothing written stays and they are
  // put back under the lock, before anything kept back since (restore()).
  struct DeferredWriter {
    std::function<void()> take;
    std::function<bool()> write;
    std::function<void()> restore;
    std::function<void()> landed;
  };
  // Installs a writer. Writers run newest first: a later writer's rows may
  // refer to an earlier one's (a feed's item to its asset), and were kept
  // back after them, so what it hands over first is already covered by what
  // the earlier one hands over next. A commit never holds a reference
  // without its target. Returns what removes the writer.
  std::size_t addDeferredWriter(DeferredWriter writer);
  void removeDeferredWriter(std::size_t id);
  // Says that a row was kept back for the deferred writer: a commit is due
  // as after a step.
  void deferred();
  // The lock that guards what every writer keeps back. Writers record their
  // rows under it; a commit holds it only to take them all as of one moment.
  // A writer that records in a tight loop would keep taking it back before a
  // waiting commit could, so while a commit waits for it, writers yield.
  std::unique_lock<std::mutex> holdRows();
  // Commits now; false when the commit failed (the steps stay pending).
  bool flush();

  // Holds commits back for its lifetime; see above.
  class Admission {
   public:
    explicit Admission(GroupCommit& commits);
    // Ends the admission; the outermost one of a thread then runs what was
    // handed to afterAdmission(), in order, outside it.
    ~Admission();
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;

   private:
    GroupCommit& commits_;
  };
  // Whether the calling thread is inside an admission of this store.
  bool admitting() const;
  // Runs `work` once the calling thread's admission has ended, or now when
  // it is in none.
  void afterAdmission(std::function<void()> work);
  // Gives up what is not committed: every writer and the rows it holds go,
  // and the steps of the open transaction are rolled back. For a store that
  // closes after its last commit failed (a full disk): what could not be
  // written then goes whole, rather than in part by a later commit.
  void abandon();
  // Commits made so far.
  std::uint64_t commits() const;
  // The message of the last failed commit, if any.
  std::string lastError() const;

 private:
  void run();
  // Calls `taken` once the held rows are taken (or when there are none).
  bool commitLocked(const std::function<void()>& taken);
  // The gate: a commit waits for every admission to end, and a new admission
  // for a waiting commit. A thread inside an admission passes through.
  // False when the calling thread is inside an admission, which it keeps.
  bool closeGate();
  void openGate();
  struct ThreadAdmission {
    const GroupCommit* commits;
    int depth;
    std::vector<std::function<void()>> after;
  };
  static std::vector<ThreadAdmission>& threadAdmissions();
  static ThreadAdmission* threadAdmission(const GroupCommit* commits);
  // Marks a write at `now`: the committer is woken when the first one opens
  // a batch; later ones only move its deadline, which it reads when it wakes.
  void noteWriteLocked(std::chrono::steady_clock::time_point now);
  bool writeLocked(const std::function<bool()>& step, bool savepoint);

  Database& db_;
  const GroupCommitOptions options_;
  std::mutex gateMutex_;  // taken first, before the database's mutex
  std::condition_variable gateChanged_;
  int admissions_ = 0;       // open admissions, one per thread
  int commitsWaiting_ = 0;   // commits waiting for them to end
  bool committing_ = false;  // a commit holds the gate
  std::mutex held_;          // taken after the database's mutex, before mutex_
  std::atomic<bool> commitWaits_{false};
  mutable std::mutex mutex_;  // guards the fields below; taken after the database's
  std::condition_variable wake_;
  bool open_ = false;      // something waits to be committed
  bool deferred_ = false;  // the deferred writer holds rows back
  // Guarded by the database's mutex.
  std::vector<std::pair<std::size_t, DeferredWriter>> writers_;
  std::size_t nextWriterId_ = 1;
  bool stopping_ = false;
  std::chrono::steady_clock::time_point firstStep_, lastStep_;
  std::uint64_t commits_ = 0;
  std::string lastError_;
  std::thread committer_;
};

}  // namespace zolvani::reference
