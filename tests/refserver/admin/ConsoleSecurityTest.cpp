// The console's password hashes and sessions: what an attacker holding a wrong
// password, an old cookie or a guessed token must not get.
#include <gtest/gtest.h>

#include <string>

#include "reference/server/admin/ConsoleSessions.h"
#include "reference/server/admin/PasswordHasher.h"

namespace zolvani::refserver {
namespace {

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

TEST(ConsoleSessionsTest, SessionsEndWhenIdleOrOldOrSignedOut) {
  SessionLimits limits;
  limits.idle = std::chrono::minutes(30);
  limits.lifetime = std::chrono::hours(12);
  ConsoleSessions sessions(limits);
  constexpr int64_t kMinute = 60000;
  auto s = sessions.Create(0);
  ASSERT_TRUE(s);
  EXPECT_EQ(s->id.size(), 64u);
  EXPECT_NE(s->id, s->csrfToken);

  // Used every 29 minutes it lives until its lifetime is over.
  int64_t now = 0;
  while (now + 29 * kMinute <= 12 * 60 * kMinute) {
    now += 29 * kMinute;
    EXPECT_TRUE(sessions.Find(s->id, now)) << now / kMinute;
  }
  EXPECT_FALSE(sessions.Find(s->id, 12 * 60 * kMinute + 1));

  auto idle = sessions.Create(0);
  EXPECT_TRUE(sessions.Find(idle->id, 30 * kMinute));
  EXPECT_FALSE(sessions.Find(idle->id, 60 * kMinute + 1));

  auto ended = sessions.Create(0);
  sessions.End(ended->id);
  EXPECT_FALSE(sessions.Find(ended->id, 1));

  // Lookalikes of a live identifier find nothing.
  auto live = sessions.Create(0);
  std::string other = live->id;
  other[0] = other[0] == 'a' ? 'b' : 'a';
  for (const std::string& id :
       {other, live->id.substr(1), live->id + "0", std::string(), live->csrfToken}) {
    EXPECT_FALSE(sessions.Find(id, 1)) << id;
  }
  EXPECT_TRUE(sessions.Find(live->id, 1));
}

TEST(ConsoleSessionsTest, TheLeastRecentlyUsedSessionMakesRoom) {
  SessionLimits limits;
  limits.maxSessions = 3;
  ConsoleSessions sessions(limits);
  auto a = sessions.Create(0);
  auto b = sessions.Create(1);
  auto c = sessions.Create(2);
  ASSERT_TRUE(sessions.Find(a->id, 3));  // a is now the most recently used
  auto d = sessions.Create(4);
  EXPECT_EQ(sessions.size(), 3u);
  EXPECT_TRUE(sessions.Find(a->id, 5));
  EXPECT_FALSE(sessions.Find(b->id, 5));
  EXPECT_TRUE(sessions.Find(c->id, 5));
  EXPECT_TRUE(sessions.Find(d->id, 5));
}

TEST(ConsoleSessionsTest, OnlyTheSessionsOwnTokenAllowsChanges) {
  ConsoleSessions sessions;
  auto s = sessions.Create(0);
  auto other = sessions.Create(0);
  std::string flipped = s->csrfToken;
  flipped.back() = flipped.back() == '0' ? '1' : '0';
  struct Case {
    std::string token;
    bool allowed;
  } cases[] = {
      {s->csrfToken, true},
      {other->csrfToken, false},
      {flipped, false},
      {s->csrfToken.substr(0, 63), false},
      {s->csrfToken + "0", false},
      {"", false},
      {s->id, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ConsoleSessions::CsrfMatches(*s, c.token), c.allowed) << c.token;
  }
}

}  // namespace
}  // namespace zolvani::refserver
