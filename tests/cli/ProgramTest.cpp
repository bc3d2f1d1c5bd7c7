// The zsm program as a user meets it before any server is involved: its help,
// its errors with --json, its man page, its bash completion, the settings it
// prints and takes back, and the ways to give it the secret.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "support/ProgramEnvironment.h"

namespace zsm {
namespace {

const bool kChildEnvironment = (zolvani::testing::disableLeakCheckInChildren(), true);

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

struct Ran {
  int status = -1;
  std::string out;
  std::string err;
  json doc;
};

class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "zsm-program-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    work_ = pattern;
  }
  void TearDown() override {
    std::error_code ec;
    if (!HasFailure()) fs::remove_all(work_, ec);
  }

  // `argv` run to its end: its exit status, output and errors.
  Ran Program(const std::vector<std::string>& argv) {
    Ran run;
    const fs::path log = work_ / "stderr.log";
    std::error_code ec;
    fs::remove(log, ec);
    auto error = ChildProcess::run(argv, log, 60s, &run.out, &run.status);
    EXPECT_FALSE(error) << error->describe();
    std::ifstream in(log);
    run.err.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    run.doc = json::parse(run.out, nullptr, false);
    if (run.doc.is_discarded()) run.doc = nullptr;
    return run;
  }
  Ran Zsm(std::vector<std::string> args) {
    args.insert(args.begin(), {ZSM_CLI_PROGRAM, "--data", (work_ / "device").string()});
    return Program(args);
  }
  // A shell script (for pipes and variables); $0 is zsm and $1 the data folder.
  Ran Shell(const std::string& script) {
    return Program({"/bin/sh", "-c", script, ZSM_CLI_PROGRAM, (work_ / "device").string()});
  }

  fs::path work_;
};

// Every command, and for each one option only it has: what a reader of the
// full help (and of the man page made from it) must find.
const std::vector<std::pair<std::string, std::string>> kCommandOptions = {
    {"config", "--secret-file"}, {"settings", "last-sync"},
    {"status", "status"},        {"subscribe", "--max-items"},
    {"unsubscribe", "--all"},    {"subscriptions", "subscriptions"},
    {"sync", "--watch-timeout"}, {"feeds", "feeds"},
    {"items", "--feed"},         {"retry", "--all"},
    {"forget", "forget"},        {"library", "library"},
    {"deferred", "deferred"},    {"publish", "--content-type"},
    {"push", "--no-sync"},       {"fetch", "fetch"},
    {"demo", "--link-rate"},     {"help", "--all"}};

TEST_F(ProgramTest, HelpListsTheCommandsAndEveryCommandsOptions) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"help"}, {"--help"}, {"help", "--json"}}) {
    Ran help = Zsm(args);
    ASSERT_EQ(help.status, 0) << args[0] << help.err;
    // The commands and the exit statuses, not the help of `help` itself.
    EXPECT_NE(help.out.find("Subcommands:"), std::string::npos) << help.out;
    for (const char* command : {"config", "sync", "items", "library", "wake", "demo"})
      EXPECT_NE(help.out.find("\n  " + std::string(command)), std::string::npos) << command;
    EXPECT_NE(help.out.find("Exit status"), std::string::npos);
    EXPECT_EQ(help.out.find("the command to explain"), std::string::npos) << help.out;
  }
  Ran one = Zsm({"help", "sync"});
  ASSERT_EQ(one.status, 0);
  EXPECT_NE(one.out.find("zsm sync"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("--since"), std::string::npos);

  Ran all = Zsm({"help", "--all"});
  ASSERT_EQ(all.status, 0);
  for (const auto& [command, option] : kCommandOptions) {
    const auto at = all.out.find(" " + command + "\n");
    ASSERT_NE(at, std::string::npos) << command;
    EXPECT_NE(all.out.find(option, at), std::string::npos) << command << " " << option;
  }
}

TEST_F(ProgramTest, TheManPageHasEveryCommandsOptions) {
#ifndef ZSM_MAN_PAGE
  GTEST_SKIP() << "help2man was not found: no man page was built";
#else
  std::ifstream in(ZSM_MAN_PAGE);
  ASSERT_TRUE(in) << ZSM_MAN_PAGE;
  const std::string page{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  EXPECT_NE(page.find(".SH COMMANDS"), std::string::npos);
  // roff writes a dash in an option as "\-".
  auto roff = [](std::string text) {
    std::string out;
    for (char c : text) out += c == '-' ? std::string("\\-") : std::string(1, c);
    return out;
  };
  for (const auto& [command, option] : kCommandOptions) {
    const auto at = page.find(" " + command + "\n");
    ASSERT_NE(at, std::string::npos) << command;
    EXPECT_NE(page.find(roff(option), at), std::string::npos) << command << " " << option;
  }
  // man renders it without complaint.
  Ran rendered = Program({"/bin/sh", "-c",
                          "command -v man >/dev/null || exit 77; "
                          "MANWIDTH=100 man -l \"$0\" 2>&1 >/dev/null",
                          ZSM_MAN_PAGE});
  if (rendered.status != 77) {
    EXPECT_EQ(rendered.status, 0) << rendered.out;
  }
#endif
}

TEST_F(ProgramTest, UsageErrorsAreJsonWithJson) {
  const std::vector<std::vector<std::string>> cases = {
      {"--json", "sycn"},
      {"--json"},
      {"sync", "--json", "--since", "yesterday"},
      {"--json", "settings", "set", "max-items", "lots"},
      {"--json", "subscribe", "news", "--autodelete", "maybe"},
      {"--json", "items", "retry"},
      {"--json", "config", "--secret", "a", "--secret-file", "b"},
  };
  for (const auto& args : cases) {
    std::string name;
    for (const auto& a : args) name += a + " ";
    SCOPED_TRACE(name);
    Ran run = Zsm(args);
    EXPECT_EQ(run.status, 2) << run.out << run.err;
    ASSERT_TRUE(run.doc.is_object()) << "not one JSON document: " << run.out;
    EXPECT_EQ(run.doc["ok"], false);
    EXPECT_EQ(run.doc["error"]["domain"], "zsm");
    EXPECT_EQ(run.doc["error"]["code"], 1);
    EXPECT_NE(run.err.find("error: zsm 1: "), std::string::npos) << run.err;
  }
  // Without --json the error is text only.
  Ran text = Zsm({"sycn"});
  EXPECT_EQ(text.status, 2);
  EXPECT_TRUE(text.out.empty()) << text.out;
}

TEST_F(ProgramTest, TheSecretComesFromAFileStandardInputOrTheEnvironment) {
  const std::vector<std::string> base = {"config", "--json", "--server", "http://127.0.0.1:9",
                                         "--user", "u",      "--key",    "k"};
  auto withArgs = [&](std::vector<std::string> more) {
    std::vector<std::string> args = base;
    args.insert(args.end(), more.begin(), more.end());
    return args;
  };
  auto stored = [&]() { return Zsm({"config", "--json", "--reveal"}).doc["secret"]; };

  std::ofstream(work_ / "secret.txt") << "from-a-file\n";
  ASSERT_EQ(Zsm(withArgs({"--secret-file", (work_ / "secret.txt").string()})).status, 0);
  EXPECT_EQ(stored(), "from-a-file");

  Ran piped = Shell("printf 'from-stdin\\r\\n' | \"$0\" --data \"$1\" config --secret-file -");
  ASSERT_EQ(piped.status, 0) << piped.err;
  EXPECT_EQ(stored(), "from-stdin");
  // The secret never shows unless asked for.
  EXPECT_EQ(piped.out.find("from-stdin"), std::string::npos) << piped.out;

  // From the environment it counts for the invocation and is not written down.
  Ran env = Shell("ZSM_SECRET=from-env \"$0\" --data \"$1\" --json config --reveal");
  ASSERT_EQ(env.status, 0) << env.err;
  EXPECT_EQ(env.doc["secret"], "from-env");
  EXPECT_EQ(env.doc["secret_from"], "ZSM_SECRET");
  EXPECT_EQ(stored(), "from-stdin");
  std::ifstream config(work_ / "device" / "config.json");
  const std::string text{std::istreambuf_iterator<char>(config), std::istreambuf_iterator<char>()};
  EXPECT_EQ(text.find("from-env"), std::string::npos);

  // An empty or missing secret is refused, and nothing changes.
  EXPECT_EQ(Shell("printf '\\n' | \"$0\" --data \"$1\" config --secret-file -").status, 2);
  EXPECT_EQ(Zsm({"config", "--secret-file", (work_ / "missing").string()}).status, 1);
  EXPECT_EQ(stored(), "from-stdin");
}

TEST_F(ProgramTest, SettingsPrintsTheLastSyncInAFormItTakesBack) {
  ASSERT_EQ(Zsm({"config", "--server", "http://127.0.0.1:9", "--user", "u", "--key", "k",
                 "--secret", "s"})
                .status,
            0);
  ASSERT_EQ(Zsm({"settings", "set", "last-sync", "2026-01-31T08:00:00Z"}).status, 0);
  Ran shown = Zsm({"settings"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  const auto at = shown.out.find("last-sync:");
  ASSERT_NE(at, std::string::npos);
  std::string line = shown.out.substr(at, shown.out.find('\n', at) - at);
  EXPECT_NE(line.find("2026-01-31T08:00:00Z"), std::string::npos) << line;
  // Each form shown on the line, set again, gives the same date.
  for (const std::string& form : {std::string("2026-01-31T08:00:00Z"), std::string("1769846400")}) {
    ASSERT_NE(line.find(form), std::string::npos) << line;
    ASSERT_EQ(Zsm({"settings", "set", "last-sync", "now"}).status, 0);
    Ran set = Zsm({"--json", "settings", "set", "last-sync", form});
    ASSERT_EQ(set.status, 0) << form << set.err;
    EXPECT_EQ(set.doc["last-sync"], 1769846400.0) << form;
  }
  for (const char* refused : {"2026-02-30T08:00:00Z", "2026-01-31T08:00:00", "31.01.2026"})
    EXPECT_EQ(Zsm({"settings", "set", "last-sync", refused}).status, 2) << refused;
}

TEST_F(ProgramTest, BashCompletionWorksWithoutBashCompletionInstalled) {
  struct Case {
    std::string line;  // the words typed, the last one being completed
    std::string offered;
    std::string notOffered;
  };
  const std::vector<Case> cases = {
      {"zsm ", "subscribe", "--all"},
      {"zsm sy", "sync", "config"},
      {"zsm settings ", "set", "max-items"},
      {"zsm settings set ", "last-sync", "get"},
      {"zsm settings set a", "autodelete", "max-items"},
      {"zsm settings set autodelete ", "on", "max-items"},
      {"zsm --data /tmp settings set verbose o", "off", "last-sync"},
      {"zsm items ", "retry", "--no-sync"},
      {"zsm items retry --", "--all", "--feed"},
      {"zsm wake ", "push", "--no-sync"},
      {"zsm wake push --", "--no-sync", "--since"},
      {"zsm sync --since ", "7d", "sync"},
      {"zsm config --", "--secret-file", "--watch"},
  };
  const std::string script = std::string(ZSM_COMPLETION_SCRIPT);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    // A bare bash (no bash-completion helpers), the words split as bash does.
    const std::string run =
        "source \"$0\" || exit 9; declare -F _init_completion >/dev/null && exit 8; "
        "read -ra COMP_WORDS <<< \"$1\"; [ \"${1: -1}\" = ' ' ] && COMP_WORDS+=(''); "
        "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _zsm zsm; printf '%s\\n' \"${COMPREPLY[@]}\"";
    Ran done = Program({"/bin/bash", "--norc", "--noprofile", "-c", run, script, c.line});
    ASSERT_EQ(done.status, 0) << done.err;
    const std::string words = "\n" + done.out;
    EXPECT_NE(words.find("\n" + c.offered + "\n"), std::string::npos) << done.out;
    EXPECT_EQ(words.find("\n" + c.notOffered + "\n"), std::string::npos) << done.out;
  }
}

}  // namespace
}  // namespace zsm
