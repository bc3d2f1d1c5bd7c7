// PgSchema: the PostgreSQL store's tables as numbered migrations, the command that
// applies them, and the check a replica makes before it serves.
//
// Migrations run in one transaction under a transaction-scoped advisory lock, so
// two appliers started at once apply each migration once: the second waits, then
// finds nothing left to do. Thread-safe (no shared state).
#pragma once

#include <string>

#include "reference/server/Status.h"

namespace zolvani::refserver {

class PgLease;

class PgSchema {
 public:
  // The schema version this program reads and writes.
  static int CompiledVersion();

  // Brings the database at `url` to CompiledVersion(). `from` and `to` (when given)
  // receive the version found and the version left. A database newer than this
  // program is refused with FailedPrecondition and left alone.
  static Status Migrate(const std::string& url, int* from = nullptr, int* to = nullptr);

  // OK when the database behind `lease` is at CompiledVersion(); otherwise a
  // FailedPrecondition that says which versions differ and what to run.
  static Status Check(PgLease& lease);

  // The version recorded in the database (0 when no migration ran yet).
  static Status Version(PgLease& lease, int* version);
};

}  // namespace zolvani::refserver
