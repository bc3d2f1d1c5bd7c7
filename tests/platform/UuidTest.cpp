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

}  // namespace
}  // namespace zolvani
