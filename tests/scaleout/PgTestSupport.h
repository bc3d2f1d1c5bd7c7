// What the PostgreSQL tests share: one throwaway cluster per test program,
// started on first use and stopped at exit, and a fresh migrated database per
// test, named after it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "reference/server/store/postgres/PgStore.h"
#include "tests/scaleout/PgCluster.h"

namespace zolvani::refserver::testing {

// The program's cluster; null (with the reason in `error`) when PostgreSQL could
// not start, which fails the test that asked.
PgCluster* SharedPgCluster(std::string* error);

class PgTest : public ::testing::Test {
 protected:
  void SetUp() override;

  // A store (one replica's pool) on this test's database.
  std::unique_ptr<PgStore> OpenStore(int poolSize = 4);

  PgCluster* cluster_ = nullptr;
  std::string url_;  // this test's database, migrated
};

}  // namespace zolvani::refserver::testing
