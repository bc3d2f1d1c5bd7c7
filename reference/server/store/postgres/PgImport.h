// ImportSqlite: copies a data folder's SQLite store (server.sqlite) into an empty,
// migrated PostgreSQL database, so that a server that outgrew one machine moves
// to replicas keeping every account, device, feed, item, subscription, rule,
// grant and push notice (push notice ids kept, their sequence moved past them),
// and, when the folder has a console.sqlite and the database's console holds
// nothing yet, the console's password, operators, sessions and audit log.
//
// One transaction: a failure leaves the database as it was. The SQLite file is
// only read. Thread-safe (no shared state).
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "reference/server/Status.h"

namespace zolvani::refserver {

struct ImportSummary {
  std::map<std::string, int64_t> rows;  // table -> rows copied
  // The folder had console state but the database's console was already set up,
  // so the database's was kept.
  bool consoleKept = false;
  std::string ToString() const;
};

// Fails with FailedPrecondition when the database already holds accounts, feeds,
// items or devices (an import never merges), and with NotFound when the folder has
// no server.sqlite.
Status ImportSqlite(const std::filesystem::path& dataDir, const std::string& url,
                    ImportSummary* summary);

}  // namespace zolvani::refserver
