#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "zolvani/subscription/engine/ChunkedSequence.h"

namespace zolvani {
namespace {

// Small chunks, so that a few dozen elements already split, merge and empty
// chunks the way a feed of thousands does.
using Small = ChunkedSequence<std::string, 4>;

void expectSame(const Small& seq, const std::vector<std::string>& model, int round) {
  ASSERT_EQ(seq.size(), model.size()) << "round " << round;
  EXPECT_EQ(seq.toVector(), model) << "round " << round;
  std::vector<std::string> iterated(seq.begin(), seq.end());
  EXPECT_EQ(iterated, model) << "round " << round;
  for (std::size_t i = 0; i < model.size(); ++i)
    ASSERT_EQ(seq[i], model[i]) << "round " << round << " index " << i;
}

TEST(ChunkedSequenceTest, FollowsAVectorThroughRandomEdits) {
  std::mt19937 random(11);
  for (int round = 0; round < 30; ++round) {
    Small seq;
    std::vector<std::string> model;
    int next = 0;
    for (int step = 0; step < 400; ++step) {
      // Grows for the first half of the round and shrinks in the second, so
      // that chunks are emptied and merged as well as split.
      const bool grow = step < 200 ? random() % 4 != 0 : random() % 4 == 0;
      if (grow || model.empty()) {
        const std::string value = std::to_string(next++);
        switch (random() % 3) {
          case 0:
            seq.push_back(value);
            model.push_back(value);
            break;
          case 1:
            seq.insert(0, value);
            model.insert(model.begin(), value);
            break;
          default: {
            const std::size_t at = random() % (model.size() + 1);
            seq.insert(at, value);
            model.insert(model.begin() + static_cast<std::ptrdiff_t>(at), value);
          }
        }
      } else {
        const std::size_t at = random() % 3 == 0 ? 0 : random() % model.size();
        EXPECT_EQ(seq.erase(at), model[at]);
        model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
      }
      if (step % 25 == 0) expectSame(seq, model, round);
    }
    expectSame(seq, model, round);
    if (model.empty()) continue;
    seq[model.size() / 2] = "changed";
    model[model.size() / 2] = "changed";
    expectSame(seq, model, round);
  }
}

TEST(ChunkedSequenceTest, PartitionPointAndFindAgreeWithTheStandardAlgorithms) {
  std::mt19937 random(5);
  ChunkedSequence<int, 4> seq;
  std::vector<int> model;
  for (int i = 0; i < 60; ++i) {
    const int value = static_cast<int>(random() % 20);
    const auto at = std::upper_bound(model.begin(), model.end(), value) - model.begin();
    model.insert(model.begin() + at, value);
    seq.insert(static_cast<std::size_t>(at), value);
  }
  for (int probe = -1; probe <= 21; ++probe) {
    const auto expected =
        std::partition_point(model.begin(), model.end(), [&](int v) { return v <= probe; }) -
        model.begin();
    EXPECT_EQ(seq.partitionPoint([&](int v) { return v <= probe; }),
              static_cast<std::size_t>(expected))
        << "probe " << probe;
    const auto found = std::find(model.begin(), model.end(), probe) - model.begin();
    EXPECT_EQ(seq.find(probe), static_cast<std::size_t>(found)) << "probe " << probe;
  }
  ChunkedSequence<int, 4> empty;
  EXPECT_EQ(empty.partitionPoint([](int) { return true; }), 0u);
  EXPECT_EQ(empty.find(3), 0u);
  EXPECT_TRUE(empty.begin() == empty.end());
}

TEST(ChunkedSequenceTest, IndexesBeyondTheEndThrowInsteadOfCorrupting) {
  Small seq;
  EXPECT_THROW(seq.erase(0), std::out_of_range);
  EXPECT_THROW(seq.insert(1, "x"), std::out_of_range);
  seq.insert(0, "a");
  EXPECT_THROW(seq.at(1), std::out_of_range);
  EXPECT_THROW(seq.erase(1), std::out_of_range);
  EXPECT_EQ(seq.size(), 1u);
  EXPECT_EQ(seq.at(0), "a");
}

}  // namespace
}  // namespace zolvani
