// SqliteFaults: a SQLite file layer that runs out of space on demand.
//
// install() puts a shim in front of the default file layer (and makes it the
// default, so every connection the process opens afterwards goes through
// it). Once armed with limitWrites(n), the files SQLite writes (database,
// write-ahead log, journals) take n more bytes; the write that crosses the
// limit writes what fits and fails with SQLITE_FULL, as a full disk does
// mid-write, and so does every write after it until clear().
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <cstdint>

namespace zolvani::testing {

class SqliteFaults {
 public:
  static void install();
  // Lets `bytes` more bytes be written, then fails writes with SQLITE_FULL.
  static void limitWrites(std::uint64_t bytes);
  static void failWrites() { limitWrites(0); }
  // Writes succeed again.
  static void clear();
  // Writes refused since install().
  static std::uint64_t refusedWrites();
};

// Arms a limit for a scope.
class ScopedSqliteFault {
 public:
  explicit ScopedSqliteFault(std::uint64_t bytes = 0) { SqliteFaults::limitWrites(bytes); }
  ~ScopedSqliteFault() { SqliteFaults::clear(); }
  ScopedSqliteFault(const ScopedSqliteFault&) = delete;
  ScopedSqliteFault& operator=(const ScopedSqliteFault&) = delete;
};

}  // namespace zolvani::testing
