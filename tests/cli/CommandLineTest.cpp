// What zsm reads from its command line beyond CLI11, and the exit status each
// kind of failure ends with.
#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "CliError.h"
#include "ExitStatus.h"
#include "UserInput.h"
#include "zolvani/reference/ReferenceEngine.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/platform/CurlHttpTransport.h"

namespace zsm {
namespace {

using zolvani::Error;

TEST(CommandLineTest, LogLevelsTakeNamesAndNumbers) {
  struct Case {
    const char* text;
    std::optional<std::int64_t> level;
  } cases[] = {
      {"error", 0},
      {"warning", 1},
      {"warn", 1},
      {"notable", 2},
      {"info", 4},
      {"debug", kLogLevelDebug},
      {"0", 0},
      {"4", 4},
      {"17", 17},
      {"-1", std::nullopt},
      {"", std::nullopt},
      {"loud", std::nullopt},
      {"4x", std::nullopt},
      {"Info", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(parseLogLevel(c.text), c.level) << c.text;
}

TEST(CommandLineTest, SpansReadWithTheirUnits) {
  struct Case {
    const char* text;
    std::optional<double> seconds;
  } cases[] = {
      {"90", 90.0},
      {"90s", 90.0},
      {"30m", 1800.0},
      {"12h", 43200.0},
      {"7d", 604800.0},
      {"2w", 1209600.0},
      {"1.5d", 129600.0},
      {"0d", 0.0},
      {"-1d", std::nullopt},
      {"d", std::nullopt},
      {"", std::nullopt},
      {"7days", std::nullopt},
      {"yesterday", std::nullopt},
      {"200000w", std::nullopt},
      {"nan", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(parseSpan(c.text), c.seconds) << c.text;
}

TEST(CommandLineTest, UtcDatesReadAsSettingsPrintsThem) {
  struct Case {
    const char* text;
    std::optional<double> seconds;
  } cases[] = {
      {"1970-01-01T00:00:00Z", 0.0},
      {"2026-01-31T08:00:00Z", 1769846400.0},
      {"2026-01-31 08:00:00Z", 1769846400.0},
      {"2026-01-31T08:00:00.25Z", 1769846400.25},
      {"2024-02-29T23:59:59Z", 1709251199.0},
      {"2000-03-01T00:00:00Z", 951868800.0},
      {"2023-02-29T00:00:00Z", std::nullopt},
      {"2026-13-01T00:00:00Z", std::nullopt},
      {"2026-01-31T24:00:00Z", std::nullopt},
      {"2026-01-31T08:00:00", std::nullopt},
      {"2026-01-31T08:00:00+01:00", std::nullopt},
      {"2026-01-31T08:00:00.Z", std::nullopt},
      {"1969-12-31T23:59:59Z", std::nullopt},
      {"2026-1-31T08:00:00Z", std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(parseUtcDate(c.text), c.seconds) << c.text;
}

TEST(CommandLineTest, MistypedCommandsGetTheNearestOne) {
  const std::vector<std::string> commands = {"config", "settings",     "status", "subscribe",
                                             "sync",   "feeds",        "items",  "deferred",
                                             "help",   "subscriptions"};
  struct Case {
    const char* typed;
    const char* nearest;
  } cases[] = {
      {"sycn", "sync"},           {"staus", "status"}, {"itmes", "items"},
      {"subscirbe", "subscribe"}, {"feed", "feeds"},   {"defer", "deferred"},
      {"frobnicate", ""},         {"x", ""},           {"setings", "settings"},
  };
  for (const Case& c : cases) EXPECT_EQ(nearestName(c.typed, commands), c.nearest) << c.typed;
  EXPECT_EQ(nearestName("anything", {}), "");
}

TEST(CommandLineTest, EachKindOfFailureHasItsOwnExitStatus) {
  const std::string library(zolvani::kZolvaniSubscriptionManagerErrorDomain);
  const std::string transport(zolvani::kCurlErrorDomain);
  const std::string engine(zolvani::reference::kReferenceEngineErrorDomain);
  struct Case {
    Error error;
    int status;
  } cases[] = {
      {cliError(kCliErrorUsage, "bad value"), kExitUsage},
      {cliError(kCliErrorNotConfigured, "no server"), kExitFailure},
      {cliError(kCliErrorConfigFile, "unreadable"), kExitFailure},
      {cliError(kCliErrorTimeout, "no answer"), kExitServer},
      {cliError(kCliErrorServer, "refused"), kExitServer},
      {cliError(kCliErrorDownloads, "2 failed"), kExitDownloads},
      {cliError(kCliErrorIncomplete, "demo check"), kExitFailure},
      {Error::make(library, -1, "authentication"), kExitServer},
      {Error::make(library, 12, "the server's own code"), kExitServer},
      {Error::make(transport, 7, "connection refused"), kExitServer},
      {Error::make(engine, 1, "store"), kExitFailure},
  };
  for (const Case& c : cases) EXPECT_EQ(exitStatusFor(c.error), c.status) << c.error.describe();
  // The statuses are documented where users look for them.
  const std::string help = exitStatusHelp();
  for (const char* status : {"  0 ", "  1 ", "  2 ", "  3 ", "  4 "})
    EXPECT_NE(help.find(status), std::string::npos) << status;
}

}  // namespace
}  // namespace zsm
