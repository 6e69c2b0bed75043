// The order-statistic tree of the Median accumulators against a sorted
// vector: random inserts and erasures (a growing phase, then a shrinking
// one), every position read back, in both weightings (every occurrence, or
// each distinct value once), with the default node sizes and with tiny ones
// that make every few changes split, borrow or merge nodes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "cpx_expressions/cpx_accumulators.h"

namespace vx {
namespace {

template <class Tree, class T, class Gen>
void CheckAgainstSortedVector(uint64_t seed, int steps, bool counts_duplicates, Gen&& value) {
  std::mt19937_64 rng(seed);
  Tree tree;
  std::vector<T> sorted;  // every live occurrence, in the accumulators' order
  const CpxAccumulatorLess less;
  auto same = [&](T a, T b) { return !less(a, b) && !less(b, a); };
  for (int step = 0; step < steps; ++step) {
    const T v = value(rng);
    auto at = std::lower_bound(sorted.begin(), sorted.end(), v, less);
    const uint32_t held =
        static_cast<uint32_t>(std::upper_bound(sorted.begin(), sorted.end(), v, less) - at);
    ASSERT_EQ(tree.Count(v), held);
    const int remove_percent = step < steps / 2 ? 35 : 75;
    if (std::uniform_int_distribution<int>(0, 99)(rng) < remove_percent) {
      const auto left = tree.Remove(v);
      if (held == 0) {
        ASSERT_FALSE(left.has_value());
      } else {
        ASSERT_EQ(left->count, held - 1);
        ASSERT_TRUE(same(left->value, v));
        sorted.erase(at);
      }
    } else {
      ASSERT_EQ(tree.Add(v).count, held + 1);
      sorted.insert(at, v);
    }
    if (sorted.size() > 200 && step % 50 != 0) continue;  // read every position now and then
    std::vector<T> expected;
    for (T x : sorted)
      if (counts_duplicates || expected.empty() || !same(expected.back(), x)) expected.push_back(x);
    ASSERT_EQ(tree.Weight(), expected.size());
    ASSERT_EQ(tree.Empty(), expected.empty());
    for (size_t i = 0; i < expected.size(); ++i) {
      ASSERT_TRUE(same(tree.At(i), expected[i])) << i;
      if (i + 1 < expected.size()) {
        const auto [a, b] = tree.AtPair(i);
        ASSERT_TRUE(same(a, expected[i]) && same(b, expected[i + 1])) << i;
      }
    }
  }
  uint32_t distinct = 0;
  uint64_t occurrences = 0;
  T previous{};
  tree.ForEach([&](T x, uint32_t count) {
    if (distinct > 0) {
      EXPECT_TRUE(less(previous, x));
    }
    previous = x;
    ++distinct;
    occurrences += count;
  });
  EXPECT_EQ(distinct, tree.Size());
  EXPECT_EQ(occurrences, sorted.size());
}

template <class T, bool kCountDuplicates>
using Tiny = CpxOrderStatisticTree<T, CpxAccumulatorLess, kCountDuplicates, 2, 4>;
template <class T, bool kCountDuplicates>
using Default = CpxOrderStatisticTree<T, CpxAccumulatorLess, kCountDuplicates>;

auto Ints(int32_t range) {
  return [range](std::mt19937_64& r) {
    return std::uniform_int_distribution<int32_t>(-range, range)(r);
  };
}

TEST(OrderStatisticTree, IntegersWithDuplicates) {
  CheckAgainstSortedVector<Tiny<int32_t, true>, int32_t>(1, 4000, true, Ints(60));
  CheckAgainstSortedVector<Default<int32_t, true>, int32_t>(2, 4000, true, Ints(60));
  CheckAgainstSortedVector<Tiny<int32_t, true>, int32_t>(3, 6000, true, Ints(3000));
}

TEST(OrderStatisticTree, DistinctPositions) {
  CheckAgainstSortedVector<Tiny<int64_t, false>, int64_t>(4, 4000, false, Ints(40));
  CheckAgainstSortedVector<Default<int64_t, false>, int64_t>(5, 6000, false, Ints(3000));
}

// NaN is one value above +infinity; the tree never loses track of it.
TEST(OrderStatisticTree, FloatsWithNaNAndInfinities) {
  const double specials[] = {std::nan(""),
                             -std::nan(""),
                             std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity(),
                             -0.0,
                             0.0};
  auto value = [&](std::mt19937_64& r) {
    const int k = std::uniform_int_distribution<int>(0, 15)(r);
    return k < 6 ? specials[k] : static_cast<double>(k);
  };
  CheckAgainstSortedVector<Tiny<double, true>, double>(6, 3000, true, value);
  CheckAgainstSortedVector<Default<double, false>, double>(7, 3000, false, value);
}

// Equivalent values share one entry, shown by the first one added, until
// the entry is gone.
TEST(OrderStatisticTree, FirstEquivalentIsTheOneHeld) {
  Tiny<double, true> tree;
  EXPECT_TRUE(std::signbit(tree.Add(-0.0).value));
  EXPECT_TRUE(std::signbit(tree.Add(0.0).value));
  EXPECT_TRUE(std::signbit(tree.Remove(0.0)->value));
  const auto last = tree.Remove(0.0);
  EXPECT_EQ(last->count, 0u);
  EXPECT_TRUE(std::signbit(last->value));
  EXPECT_FALSE(std::signbit(tree.Add(0.0).value));
}

// Many distinct values: long ascending runs, then every second value
// retracted (leaves fall below a quarter and merge or borrow).
TEST(OrderStatisticTree, AscendingRunsStayBalanced) {
  Default<int32_t, true> tree;
  for (int32_t i = 0; i < 100000; ++i) tree.Add(i);
  for (int32_t i = 0; i < 100000; i += 2) ASSERT_EQ(tree.Remove(i)->count, 0u);
  ASSERT_EQ(tree.Weight(), 50000u);
  ASSERT_EQ(tree.Size(), 50000u);
  for (uint64_t p = 0; p < 50000; p += 997) EXPECT_EQ(tree.At(p), static_cast<int32_t>(2 * p + 1));
  EXPECT_EQ(tree.Add(7, 5).count, 6u);  // restore path: a count at once
  EXPECT_EQ(tree.Weight(), 50005u);
  for (int32_t i = 1; i < 100000; i += 2) ASSERT_TRUE(tree.Remove(i).has_value());
  EXPECT_EQ(tree.Weight(), 5u);
  EXPECT_EQ(tree.At(4), 7);
}

}  // namespace
}  // namespace vx
