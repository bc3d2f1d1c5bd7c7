#include "SqliteFaults.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace zolvani::testing {
namespace {

sqlite3_vfs* real = nullptr;
sqlite3_vfs shim;
std::mutex budgetMutex;
bool armed = false;
std::uint64_t budget = 0;
std::atomic<std::uint64_t> refused{0};

// The shim's file: the real file's handle follows it in the same allocation.
struct File {
  sqlite3_file base;
  sqlite3_file* real;
};

sqlite3_file* inner(sqlite3_file* f) { return reinterpret_cast<File*>(f)->real; }

// How much of a write of `amount` bytes may land.
std::uint64_t allowance(std::uint64_t amount) {
  std::lock_guard l(budgetMutex);
  if (!armed) return amount;
  const std::uint64_t granted = std::min(amount, budget);
  budget -= granted;
  return granted;
}

int xClose(sqlite3_file* f) {
  sqlite3_file* r = inner(f);
  return r->pMethods ? r->pMethods->xClose(r) : SQLITE_OK;
}
int xRead(sqlite3_file* f, void* buffer, int amount, sqlite3_int64 offset) {
  return inner(f)->pMethods->xRead(inner(f), buffer, amount, offset);
}
int xWrite(sqlite3_file* f, const void* buffer, int amount, sqlite3_int64 offset) {
  const auto granted = static_cast<int>(allowance(static_cast<std::uint64_t>(amount)));
  if (granted == amount) return inner(f)->pMethods->xWrite(inner(f), buffer, amount, offset);
  // A short write, as a disk that fills up mid-write leaves it.
  if (granted > 0) inner(f)->pMethods->xWrite(inner(f), buffer, granted, offset);
  ++refused;
  return SQLITE_FULL;
}
int xTruncate(sqlite3_file* f, sqlite3_int64 size) {
  return inner(f)->pMethods->xTruncate(inner(f), size);
}
int xSync(sqlite3_file* f, int flags) { return inner(f)->pMethods->xSync(inner(f), flags); }
int xFileSize(sqlite3_file* f, sqlite3_int64* size) {
  return inner(f)->pMethods->xFileSize(inner(f), size);
}
int xLock(sqlite3_file* f, int level) { return inner(f)->pMethods->xLock(inner(f), level); }
int xUnlock(sqlite3_file* f, int level) { return inner(f)->pMethods->xUnlock(inner(f), level); }
int xCheckReservedLock(sqlite3_file* f, int* out) {
  return inner(f)->pMethods->xCheckReservedLock(inner(f), out);
}
int xFileControl(sqlite3_file* f, int op, void* arg) {
  return inner(f)->pMethods->xFileControl(inner(f), op, arg);
}
int xSectorSize(sqlite3_file* f) { return inner(f)->pMethods->xSectorSize(inner(f)); }
int xDeviceCharacteristics(sqlite3_file* f) {
  return inner(f)->pMethods->xDeviceCharacteristics(inner(f));
}
int xShmMap(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
  return inner(f)->pMethods->xShmMap(inner(f), region, size, extend, out);
}
int xShmLock(sqlite3_file* f, int offset, int n, int flags) {
  return inner(f)->pMethods->xShmLock(inner(f), offset, n, flags);
}
void xShmBarrier(sqlite3_file* f) { inner(f)->pMethods->xShmBarrier(inner(f)); }
int xShmUnmap(sqlite3_file* f, int deleteFlag) {
  return inner(f)->pMethods->xShmUnmap(inner(f), deleteFlag);
}
int xFetch(sqlite3_file* f, sqlite3_int64 offset, int amount, void** out) {
  return inner(f)->pMethods->xFetch(inner(f), offset, amount, out);
}
int xUnfetch(sqlite3_file* f, sqlite3_int64 offset, void* p) {
  return inner(f)->pMethods->xUnfetch(inner(f), offset, p);
}

const sqlite3_io_methods methods = {3,
                                    xClose,
                                    xRead,
                                    xWrite,
                                    xTruncate,
                                    xSync,
                                    xFileSize,
                                    xLock,
                                    xUnlock,
                                    xCheckReservedLock,
                                    xFileControl,
                                    xSectorSize,
                                    xDeviceCharacteristics,
                                    xShmMap,
                                    xShmLock,
                                    xShmBarrier,
                                    xShmUnmap,
                                    xFetch,
                                    xUnfetch};

int xOpen(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* f, int flags, int* outFlags) {
  auto* file = reinterpret_cast<File*>(f);
  file->real = reinterpret_cast<sqlite3_file*>(file + 1);
  file->base.pMethods = nullptr;
  const int rc = real->xOpen(real, name, file->real, flags, outFlags);
  if (file->real->pMethods) file->base.pMethods = &methods;
  return rc;
}

}  // namespace

void SqliteFaults::install() {
  static std::once_flag once;
  std::call_once(once, [] {
    real = sqlite3_vfs_find(nullptr);
    shim = *real;
    shim.iVersion = std::min(real->iVersion, 3);
    shim.szOsFile = static_cast<int>(sizeof(File)) + real->szOsFile;
    shim.zName = "zsm-faults";
    shim.pNext = nullptr;
    shim.xOpen = xOpen;
    sqlite3_vfs_register(&shim, 1);
  });
}

void SqliteFaults::limitWrites(std::uint64_t bytes) {
  install();
  std::lock_guard l(budgetMutex);
  armed = true;
  budget = bytes;
}

void SqliteFaults::clear() {
  std::lock_guard l(budgetMutex);
  armed = false;
}

std::uint64_t SqliteFaults::refusedWrites() { return refused; }

}  // namespace zolvani::testing
