// StoreContract: the behaviour every implementation of Store must show, for a server
// alone and for several servers sharing one store: the tests are written once over
// the interface and run against each implementation through a factory.
//
// Adding an implementation: write a StoreFactory for it and instantiate the suite in
// a file of its own, linked with StoreContractTest.cpp into a test program:
//
//   class PostgresFactory : public StoreFactory { ... };
//   INSTANTIATE_TEST_SUITE_P(Postgres, StoreContractTest,
//                            ::testing::Values(StoreContractParam{
//                                "Postgres", [] { return std::make_unique<PostgresFactory>(); }}),
//                            StoreContractParamName);
//
// StoreContractSqlite.cpp does this for SqliteStore.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "reference/server/Status.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver::testing {

// Makes the stores one test runs against.
class StoreFactory {
 public:
  virtual ~StoreFactory() = default;
  // Prepares a new, empty store; called once before each test.
  virtual Status Prepare() = 0;
  // Opens another handle on the prepared store, as another server process would:
  // its own connections, nothing shared in memory with the other handles.
  virtual Status Open(std::unique_ptr<Store>* store) = 0;
  // Called after each test, once every handle is closed.
  virtual void Discard() = 0;
};

struct StoreContractParam {
  std::string name;  // letters and digits: it names the instantiation's tests
  std::function<std::unique_ptr<StoreFactory>()> make;
};

inline void PrintTo(const StoreContractParam& param, std::ostream* out) { *out << param.name; }

inline std::string StoreContractParamName(
    const ::testing::TestParamInfo<StoreContractParam>& info) {
  return info.param.name;
}

class StoreContractTest : public ::testing::TestWithParam<StoreContractParam> {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Another handle on the same store (another server).
  std::unique_ptr<Store> OpenAnother();

  std::unique_ptr<StoreFactory> factory_;
  std::unique_ptr<Store> store_;
};

}  // namespace zolvani::refserver::testing
