// The console's password hashes and its shared state (sessions, operators,
// sign-in failures, the audit log): what an attacker holding a wrong password, an
// old cookie or a guessed identifier must not get, and what two server processes
// on one data folder must both see.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "reference/server/admin/PasswordHasher.h"
#include "reference/server/store/sqlite/SqliteConsoleState.h"
#include "tests/refserver/admin/ConsoleStateContract.h"

namespace zolvani::refserver {
namespace {

using testing::ConsoleStateContractTest;

// Light parameters keep the suite quick; the format is the same as the default's.
constexpr PasswordHashParams kQuick{1, 1024, 1};

TEST(PasswordHasherTest, OnlyTheSamePasswordVerifies) {
  std::string encoded;
  ASSERT_TRUE(PasswordHasher::Hash("correct horse", kQuick, &encoded).ok());
  EXPECT_EQ(encoded.rfind("$argon2id$v=19$m=1024,t=1,p=1$", 0), 0u) << encoded;

  std::string tampered = encoded;
  tampered[tampered.size() - 3] = tampered[tampered.size() - 3] == 'A' ? 'B' : 'A';
  std::string argon2i = encoded;
  argon2i.replace(0, 9, "$argon2i");
  std::string huge = encoded;
  huge.replace(huge.find("m=1024"), 6, "m=99999999");
  struct Case {
    std::string encoded;
    std::string password;
    bool verifies;
  } cases[] = {
      {encoded, "correct horse", true},
      {encoded, "correct horse ", false},
      {encoded, "Correct horse", false},
      {encoded, "", false},
      {encoded, std::string("correct horse\0x", 15), false},
      {tampered, "correct horse", false},
      {encoded.substr(0, encoded.size() - 10), "correct horse", false},
      {argon2i, "correct horse", false},
      {huge, "correct horse", false},  // refused before allocating 95 GiB
      {"", "correct horse", false},
      {"plain text", "plain text", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(PasswordHasher::Verify(c.encoded, c.password), c.verifies)
        << c.encoded << " / " << c.password;
  }
}

TEST(PasswordHasherTest, EachHashHasItsOwnSaltAndWeakPasswordsAreRefused) {
  std::string a, b, strong;
  ASSERT_TRUE(PasswordHasher::Hash("same password", kQuick, &a).ok());
  ASSERT_TRUE(PasswordHasher::Hash("same password", kQuick, &b).ok());
  EXPECT_NE(a, b);
  EXPECT_TRUE(PasswordHasher::Verify(b, "same password"));
  // The default parameters are the memory-hard ones the server stores.
  ASSERT_TRUE(PasswordHasher::Hash("same password", PasswordHashParams{}, &strong).ok());
  EXPECT_NE(strong.find("m=19456,t=2,p=1"), std::string::npos) << strong;
  EXPECT_TRUE(PasswordHasher::Verify(strong, "same password"));

  std::string out = "untouched";
  EXPECT_TRUE(PasswordHasher::Hash("short", kQuick, &out).IsInvalidArgument());
  EXPECT_TRUE(PasswordHasher::Hash(std::string(2000, 'x'), kQuick, &out).IsInvalidArgument());
  EXPECT_EQ(out, "untouched");
}

namespace fs = std::filesystem;

class SqliteFactory : public testing::ConsoleStateFactory {
 public:
  Status Prepare() override {
    static int next = 0;
    dir_ = fs::temp_directory_path() /
           ("zsm-console-state-" + std::to_string(::getpid()) + "-" + std::to_string(next++));
    std::error_code ec;
    fs::remove_all(dir_, ec);
    return Status::OK();
  }
  Status Open(std::unique_ptr<ConsoleState>* state) override {
    std::unique_ptr<SqliteConsoleState> opened;
    Status s = SqliteConsoleState::Open(dir_, &opened);
    if (s.ok()) *state = std::move(opened);
    return s;
  }
  void Discard() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  const fs::path& dir() const { return dir_; }

 private:
  fs::path dir_;
};

INSTANTIATE_TEST_SUITE_P(Sqlite, ConsoleStateContractTest,
                         ::testing::Values(testing::ConsoleStateParam{
                             "Sqlite", [] { return std::make_unique<SqliteFactory>(); }}),
                         testing::ConsoleStateParamName);

TEST(SqliteConsoleStateTest, OnlyADigestOfTheSessionIdentifierIsOnDisk) {
  SqliteFactory factory;
  ASSERT_TRUE(factory.Prepare().ok());
  const std::string id(64, 'd');
  {
    std::unique_ptr<ConsoleState> state;
    ASSERT_TRUE(factory.Open(&state).ok());
    ASSERT_TRUE(state->CreateSession({id, "token", "", 0, 0}, {}).ok());
    ConsoleSession found;
    ASSERT_TRUE(state->FindSession(id, 1, {}, &found).ok());
  }
  std::string bytes;
  for (const auto& entry : fs::directory_iterator(factory.dir())) {
    std::ifstream file(entry.path(), std::ios::binary);
    bytes.append(std::istreambuf_iterator<char>(file), {});
  }
  EXPECT_FALSE(bytes.empty());
  EXPECT_EQ(bytes.find(id), std::string::npos);
  factory.Discard();
}

}  // namespace
}  // namespace zolvani::refserver
