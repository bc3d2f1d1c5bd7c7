#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "zolvani/subscription/platform/Platform.h"

namespace zolvani {
namespace {

// Asset and device names are random UUIDs in the canonical upper-case form that
// the store and the server compare byte for byte.
TEST(NewUUIDStringTest, IsCanonicalVersionFourText) {
  for (int i = 0; i < 200; ++i) {
    const std::string id = newUUIDString();
    ASSERT_EQ(id.size(), 36u) << id;
    for (std::size_t k = 0; k < id.size(); ++k) {
      if (k == 8 || k == 13 || k == 18 || k == 23) {
        ASSERT_EQ(id[k], '-') << id;
      } else {
        const char c = id[k];
        ASSERT_TRUE(std::isdigit(static_cast<unsigned char>(c)) || (c >= 'A' && c <= 'F')) << id;
      }
    }
    EXPECT_EQ(id[14], '4') << id;                                          // version 4: random
    EXPECT_NE(std::string("89AB").find(id[19]), std::string::npos) << id;  // RFC 4122 variant
  }
}

TEST(NewUUIDStringTest, NamesFromManyThreadsNeverCollide) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  std::vector<std::vector<std::string>> made(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) made[t].push_back(newUUIDString());
    });
  }
  for (auto& t : threads) t.join();
  std::unordered_set<std::string> all;
  for (const auto& names : made) all.insert(names.begin(), names.end());
  EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * kEach));
}

// UUIDs come from a per-thread buffer of random bytes; a forked child starts
// with a copy of it and must not name its assets as the parent does.
TEST(NewUUIDStringTest, AForkedChildNeverRepeatsItsParentsNames) {
  (void)newUUIDString();  // the buffer is filled and partly spent
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::string names;
    for (int i = 0; i < 3; ++i) names += newUUIDString();
    const bool ok = write(fds[1], names.data(), names.size()) == static_cast<ssize_t>(names.size());
    _exit(ok ? 0 : 1);
  }
  close(fds[1]);
  std::string child(3 * 36, '\0');
  std::size_t got = 0;
  while (got < child.size()) {
    const ssize_t n = read(fds[0], child.data() + got, child.size() - got);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_EQ(got, child.size());
  for (int i = 0; i < 3; ++i) {
    const std::string mine = newUUIDString();
    for (int k = 0; k < 3; ++k) EXPECT_NE(child.substr(36 * k, 36), mine);
  }
}

}  // namespace
}  // namespace zolvani
