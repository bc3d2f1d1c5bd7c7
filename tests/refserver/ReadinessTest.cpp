// Readiness for a balancer: /ready follows whether the server reaches its store,
// while /health only says that the process answers.
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "RefServerFixture.h"

namespace zolvani::refserver::testing {
namespace {

class ReadinessTest : public RefServerFixture {};

TEST_F(ReadinessTest, ReadyOnlyWhileTheDatabaseFileIsTheOneOpened) {
  namespace fs = std::filesystem;
  const fs::path file = dir_ / "server.sqlite";
  const fs::path aside = dir_ / "aside.sqlite";
  struct Case {
    const char* name;
    std::function<void()> fault;
    std::function<void()> repair;
  };
  const std::vector<Case> cases = {
      {"file removed", [&] { fs::rename(file, aside); }, [&] { fs::rename(aside, file); }},
      {"file replaced by a copy",
       [&] {
         fs::rename(file, aside);
         fs::copy_file(aside, file);
       },
       [&] {
         fs::remove(file);
         fs::rename(aside, file);
       }},
  };
  ASSERT_EQ(Get("/ready").status, 200);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.fault();
    const RawReply ready = Get("/ready");
    EXPECT_EQ(ready.status, 503) << ready.body;
    EXPECT_EQ(Get("/health").status, 200) << "the process itself is alive";
    c.repair();
    EXPECT_EQ(Get("/ready").status, 200);
  }
}

}  // namespace
}  // namespace zolvani::refserver::testing
