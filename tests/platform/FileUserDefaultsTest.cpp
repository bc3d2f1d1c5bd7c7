#include "zolvani/subscription/platform/FileUserDefaults.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace zolvani {
namespace {

namespace fs = std::filesystem;

class TempDir {
 public:
  TempDir() {
    path_ = fs::temp_directory_path() /
            ("zsm-defaults-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++));
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  const fs::path& path() const { return path_; }

 private:
  static inline int counter_ = 0;
  fs::path path_;
};

std::string readFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(FileUserDefaultsTest, EveryTypeSurvivesAWriteAndAReopen) {
  TempDir dir;
  const fs::path file = dir.path() / "defaults.json";
  Value::Map nested{{"$date", Value(1.0)}};  // a map that looks like a tag must stay a map
  struct Case {
    std::string key;
    Value value;
  } cases[] = {
      {"bool-false", Value(false)},
      {"int-zero", Value(0)},
      {"int-big", Value(std::int64_t{-9223372036854775807LL})},
      {"double", Value(2.5)},
      {"double-whole", Value(3.0)},
      {"string", Value("caf\xc3\xa9")},
      {"date", Value(Date(1700000000.25))},
      {"bytes", Value(Bytes{std::string("\x00\xff\x10", 3)})},
      {"array", Value(Value::Array{Value(1), Value("two"), Value(Date(3))})},
      {"tag-like-map", Value(nested)},
  };
  {
    FileUserDefaults defaults(file);
    for (const auto& c : cases) defaults.setObject(c.key, c.value);
    ASSERT_TRUE(defaults.synchronize());
  }
  FileUserDefaults reopened(file);
  for (const auto& c : cases) {
    auto v = reopened.objectForKey(c.key);
    ASSERT_TRUE(v.has_value()) << c.key;
    EXPECT_EQ(*v, c.value) << c.key;
  }
  // An absent key is told apart from 0 and false.
  EXPECT_FALSE(reopened.objectForKey("missing").has_value());
  EXPECT_EQ(reopened.integerForKey("missing"), 0);
  EXPECT_TRUE(reopened.objectForKey("int-zero").has_value());
}

TEST(FileUserDefaultsTest, UnsynchronisedChangesAreNotOnDisk) {
  TempDir dir;
  const fs::path file = dir.path() / "defaults.json";
  {
    FileUserDefaults defaults(file);
    defaults.setInteger("kept", 1);
    defaults.synchronize();
    defaults.setInteger("lost", 2);
  }
  FileUserDefaults reopened(file);
  EXPECT_EQ(reopened.integerForKey("kept"), 1);
  EXPECT_FALSE(reopened.objectForKey("lost").has_value());
}

TEST(FileUserDefaultsTest, AnUnreadableFileIsSetAsideAndTheStoreStartsEmpty) {
  const std::string bad[] = {"{not json", "[1,2,3]", "{\"k\": {\"$date\": \"soon\"}}",
                             "{\"k\": {\"$bytes\": \"zz\"}}", std::string("\x00\x01\x02", 3)};
  for (const auto& text : bad) {
    TempDir dir;
    const fs::path file = dir.path() / "defaults.json";
    std::ofstream(file, std::ios::binary) << text;
    std::vector<std::pair<std::string, int>> reports;
    FileUserDefaults defaults(
        file, [&](const std::string& m, int level) { reports.emplace_back(m, level); });
    EXPECT_FALSE(defaults.objectForKey("k").has_value()) << text;
    ASSERT_EQ(reports.size(), 1u) << text;
    EXPECT_EQ(reports[0].second, 0);
    // The bad file is kept aside for inspection, byte for byte.
    int aside = 0;
    for (const auto& entry : fs::directory_iterator(dir.path())) {
      if (entry.path().filename().string().starts_with("defaults.json.corrupt-")) {
        ++aside;
        EXPECT_EQ(readFile(entry.path()), text);
      }
    }
    EXPECT_EQ(aside, 1) << text;
    // And the store works afresh.
    defaults.setBool("k", true);
    ASSERT_TRUE(defaults.synchronize());
    EXPECT_TRUE(FileUserDefaults(file).boolForKey("k"));
  }
}

// A writer killed at random moments leaves either the old or the new content,
// never a mixture or an empty file.
TEST(FileUserDefaultsTest, AKilledWriterLeavesTheOldOrTheNewContent) {
  TempDir dir;
  const fs::path file = dir.path() / "defaults.json";
  const std::string big(20000, 'x');  // large enough that a write takes a while
  Value::Map versionA{{"version", Value("A")}, {"payload", Value(big)}};
  Value::Map versionB{{"version", Value("B")}, {"payload", Value(big + big)}};
  {
    FileUserDefaults seed(file);
    seed.setObject("version", Value("A"));
    seed.setObject("payload", Value(big));
    ASSERT_TRUE(seed.synchronize());
  }
  std::mt19937 rng(12345);
  for (int round = 0; round < 12; ++round) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      FileUserDefaults writer(file);
      for (long i = 0;; ++i) {
        const Value::Map& v = (i % 2) ? versionA : versionB;
        for (const auto& [k, value] : v) writer.setObject(k.view(), value);
        writer.synchronize();
      }
    }
    ::usleep(2000 + rng() % 20000);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    auto decoded = FileUserDefaults::decode(readFile(file));
    ASSERT_TRUE(decoded.has_value()) << "round " << round;
    const Value::Map& got = *decoded;
    EXPECT_TRUE(got == versionA || got == versionB) << "round " << round;
  }
}

}  // namespace
}  // namespace zolvani
