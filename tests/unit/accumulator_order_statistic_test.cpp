// The order-statistic tree of the Median accumulators against a sorted
// vector: random inserts and erasures, every position read back, in both
// weightings (every occurrence, or each distinct value once).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "cpx_expressions/cpx_accumulators.h"

namespace vx {
namespace {

template <bool kCountDuplicates, class T, class Gen>
void CheckAgainstSortedVector(uint64_t seed, int steps, Gen&& value) {
  std::mt19937_64 rng(seed);
  CpxOrderStatisticTree<T, CpxAccumulatorLess, kCountDuplicates> tree;
  std::vector<T> sorted;  // every live occurrence, in the accumulators' order
  const CpxAccumulatorLess less;
  auto same = [&](T a, T b) { return !less(a, b) && !less(b, a); };
  for (int step = 0; step < steps; ++step) {
    const T v = value(rng);
    auto at = std::lower_bound(sorted.begin(), sorted.end(), v, less);
    const uint32_t held =
        static_cast<uint32_t>(std::upper_bound(sorted.begin(), sorted.end(), v, less) - at);
    ASSERT_EQ(tree.Count(v), held);
    if (std::uniform_int_distribution<int>(0, 2)(rng) == 0) {
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
    std::vector<T> expected;
    for (T x : sorted)
      if (kCountDuplicates || expected.empty() || !same(expected.back(), x)) expected.push_back(x);
    ASSERT_EQ(tree.Weight(), expected.size());
    ASSERT_EQ(tree.Empty(), expected.empty());
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_TRUE(same(tree.At(i), expected[i])) << i;
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

TEST(OrderStatisticTree, IntegersWithDuplicates) {
  CheckAgainstSortedVector<true, int32_t>(1, 4000, [](std::mt19937_64& r) {
    return std::uniform_int_distribution<int32_t>(-60, 60)(r);
  });
}

TEST(OrderStatisticTree, DistinctPositions) {
  CheckAgainstSortedVector<false, int64_t>(2, 4000, [](std::mt19937_64& r) {
    return std::uniform_int_distribution<int64_t>(-40, 40)(r);
  });
}

// NaN is one value above +infinity; the tree never loses track of it.
TEST(OrderStatisticTree, FloatsWithNaNAndInfinities) {
  const double specials[] = {std::nan(""),
                             -std::nan(""),
                             std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity(),
                             -0.0,
                             0.0};
  CheckAgainstSortedVector<true, double>(3, 3000, [&](std::mt19937_64& r) {
    const int k = std::uniform_int_distribution<int>(0, 15)(r);
    return k < 6 ? specials[k] : static_cast<double>(k);
  });
}

// Equivalent values share one entry, shown by the first one added, until
// the entry is gone.
TEST(OrderStatisticTree, FirstEquivalentIsTheOneHeld) {
  CpxOrderStatisticTree<double, CpxAccumulatorLess, true> tree;
  EXPECT_TRUE(std::signbit(tree.Add(-0.0).value));
  EXPECT_TRUE(std::signbit(tree.Add(0.0).value));
  EXPECT_TRUE(std::signbit(tree.Remove(0.0)->value));
  const auto last = tree.Remove(0.0);
  EXPECT_EQ(last->count, 0u);
  EXPECT_TRUE(std::signbit(last->value));
  EXPECT_FALSE(std::signbit(tree.Add(0.0).value));
}

// Many distinct values: rebalancing under long ascending runs and erasures
// of inner nodes.
TEST(OrderStatisticTree, AscendingRunsStayBalanced) {
  CpxOrderStatisticTree<int32_t, CpxAccumulatorLess, true> tree;
  for (int32_t i = 0; i < 100000; ++i) tree.Add(i);
  for (int32_t i = 0; i < 100000; i += 2) ASSERT_EQ(tree.Remove(i)->count, 0u);
  ASSERT_EQ(tree.Weight(), 50000u);
  for (uint64_t p = 0; p < 50000; p += 997) EXPECT_EQ(tree.At(p), static_cast<int32_t>(2 * p + 1));
  EXPECT_EQ(tree.Add(7, 5).count, 6u);  // restore path: a count at once
  EXPECT_EQ(tree.Weight(), 50005u);
}

}  // namespace
}  // namespace vx
