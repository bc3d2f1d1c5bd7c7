// ConsoleStateContract: the behaviour every implementation of ConsoleState must
// show, for one server and for several sharing the state: written once over the
// interface and run against each implementation through a factory, as the store
// contract is. ConsoleSecurityTest.cpp instantiates it for SqliteConsoleState; the
// PostgreSQL tests do for PgConsoleState.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "reference/server/Status.h"
#include "reference/server/store/ConsoleState.h"

namespace zolvani::refserver::testing {

class ConsoleStateFactory {
 public:
  virtual ~ConsoleStateFactory() = default;
  // Prepares new, empty state; called once before each test.
  virtual Status Prepare() = 0;
  // Another handle on the prepared state, as another server process would open:
  // its own connections, nothing shared in memory with the other handles.
  virtual Status Open(std::unique_ptr<ConsoleState>* state) = 0;
  // Called after each test, once every handle is closed.
  virtual void Discard() = 0;
};

struct ConsoleStateParam {
  std::string name;  // letters and digits
  std::function<std::unique_ptr<ConsoleStateFactory>()> make;
};

inline void PrintTo(const ConsoleStateParam& param, std::ostream* out) { *out << param.name; }

inline std::string ConsoleStateParamName(const ::testing::TestParamInfo<ConsoleStateParam>& info) {
  return info.param.name;
}

class ConsoleStateContractTest : public ::testing::TestWithParam<ConsoleStateParam> {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::unique_ptr<ConsoleState> OpenAnother();
  ConsoleSession Create(const std::string& id, int64_t nowMs, const SessionLimits& limits = {},
                        const std::string& op = "");
  bool Live(const std::string& id, int64_t nowMs, const SessionLimits& limits = {});
  static std::string Id(char c) { return std::string(64, c); }

  std::unique_ptr<ConsoleStateFactory> factory_;
  std::unique_ptr<ConsoleState> state_;
};

}  // namespace zolvani::refserver::testing
