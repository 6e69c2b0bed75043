// An ordered multiset that reads its elements by position: the live values of
// a Median accumulator.
//
// `CpxOrderStatisticTree<T, Less, kCountDuplicates>` keeps each distinct
// value once, with its multiplicity, in a B+ tree whose inner nodes carry
// the weight of every child subtree. The weight of a value is its
// multiplicity when `kCountDuplicates` is true (positions then run over the
// sorted sequence of all values, each repeated as often as it occurs) and 1
// otherwise (positions run over the sorted distinct values). So the tree is
// both the value-multiplicity map and the sorted sequence of a Median state,
// without storing a value once per row. Adding, removing one occurrence and
// reading the element at a position each take one descent: O(log d) nodes
// for d distinct values, each node a short array scan. Wide nodes keep the
// descent to a few cache misses even for millions of values, where a binary
// tree would take one miss per level.
//
// Leaves hold up to kLeafCapacity sorted values with their counts; inner
// nodes hold up to kInnerCapacity children with their subtree weights and
// separators (lows[i] bounds child i from below, i >= 1). A node that falls
// below a quarter of its capacity borrows from or merges with a neighbour.
// Nodes live in accounted vectors and refer to each other by index; freed
// nodes are reused.
//
// `Less` must be a strict weak order over T; values equivalent under it are
// one element, shown by the first one added (until its count reaches 0).
//
// Threads: none; one tree belongs to one accumulator state.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

#include "support/memory.h"

namespace vx {

template <class T, class Less, bool kCountDuplicates, unsigned kLeafCapacity = 32,
          unsigned kInnerCapacity = 16>
class CpxOrderStatisticTree {
  static_assert(kLeafCapacity >= 2 && kInnerCapacity >= 4);

 public:
  // A value as held and its multiplicity.
  struct Entry {
    T value;
    uint32_t count;
  };

  CpxOrderStatisticTree() { m_root = NewLeaf(); }

  // Adds `n` occurrences of `value` (n >= 1); returns its entry.
  Entry Add(const T& value, uint32_t n = 1) {
    Step path[kMaxHeight];
    const uint32_t leaf_index = Descend(value, path);
    Leaf& leaf = m_leaves[leaf_index];
    const unsigned pos = LowerBound(leaf, value);
    Entry entry;
    uint64_t delta = kCountDuplicates ? n : 0;
    if (pos < leaf.size && !m_less(value, leaf.values[pos])) {
      entry = {leaf.values[pos], leaf.counts[pos] += n};
    } else {
      OpenSlot(leaf, pos);
      leaf.values[pos] = value;
      leaf.counts[pos] = n;
      ++m_size;
      entry = {value, n};
      if (!kCountDuplicates) delta = 1;
    }
    AddToPath(path, static_cast<int64_t>(delta));
    if (m_leaves[leaf_index].size > kLeafCapacity) Split<Leaf>(path, m_height, leaf_index);
    return entry;
  }

  // Removes one occurrence of `value`; returns its entry with the
  // multiplicity left (0 when the value is gone), or nothing when the value
  // is not held.
  std::optional<Entry> Remove(const T& value) {
    Step path[kMaxHeight];
    const uint32_t leaf_index = Descend(value, path);
    Leaf& leaf = m_leaves[leaf_index];
    const unsigned pos = LowerBound(leaf, value);
    if (pos == leaf.size || m_less(value, leaf.values[pos])) return std::nullopt;
    const Entry entry{leaf.values[pos], --leaf.counts[pos]};
    if (entry.count == 0) {
      CloseSlot(leaf, pos);
      --m_size;
    }
    AddToPath(path, kCountDuplicates || entry.count == 0 ? -1 : 0);
    if (entry.count == 0 && m_height > 0 && leaf.size < kMinLeaf) Shrink<Leaf>(path, m_height);
    return entry;
  }

  // The multiplicity of `value`; 0 when it is not held.
  uint32_t Count(const T& value) const {
    uint32_t node = m_root;
    for (uint32_t h = 0; h < m_height; ++h) {
      const Inner& inner = m_inners[node];
      node = inner.children[ChildFor(inner, value)];
    }
    const Leaf& leaf = m_leaves[node];
    const unsigned pos = LowerBound(leaf, value);
    return pos < leaf.size && !m_less(value, leaf.values[pos]) ? leaf.counts[pos] : 0;
  }
  // Number of positions: all occurrences, or the distinct values.
  uint64_t Weight() const { return m_weight; }
  // Number of distinct values.
  uint32_t Size() const { return m_size; }
  bool Empty() const { return m_size == 0; }

  // The element at 0-based `position` (below Weight()) in ascending order.
  const T& At(uint64_t position) const {
    uint32_t node = m_root;
    for (uint32_t h = 0; h < m_height; ++h) {
      const Inner& inner = m_inners[node];
      unsigned i = 0;
      while (position >= inner.weights[i]) position -= inner.weights[i++];
      node = inner.children[i];
    }
    const Leaf& leaf = m_leaves[node];
    if constexpr (kCountDuplicates) {
      unsigned i = 0;
      while (position >= leaf.counts[i]) position -= leaf.counts[i++];
      return leaf.values[i];
    } else {
      return leaf.values[position];
    }
  }
  // The smallest element; the tree is not empty.
  const T& First() const { return At(0); }
  // The elements at `position` and `position + 1` (both below Weight()).
  // The second descent runs over nodes the first has just brought in.
  std::pair<T, T> AtPair(uint64_t position) const { return {At(position), At(position + 1)}; }

  // Calls fn(value, multiplicity) for every distinct value in ascending order.
  template <class Fn>
  void ForEach(Fn&& fn) const {
    Walk(m_root, m_height, fn);
  }

 private:
  static constexpr unsigned kMinLeaf = std::max(1u, kLeafCapacity / 4);
  static constexpr unsigned kMinInner = std::max(2u, kInnerCapacity / 4);
  static constexpr unsigned kMaxHeight = 40;

  // One slot more than the capacity: a node overflows by one, then splits.
  struct Leaf {
    uint32_t size = 0;
    T values[kLeafCapacity + 1];
    uint32_t counts[kLeafCapacity + 1];
  };
  struct Inner {
    uint32_t size = 0;
    uint32_t children[kInnerCapacity + 1];
    uint64_t weights[kInnerCapacity + 1];
    T lows[kInnerCapacity + 1];  // lows[0] is not used
  };
  // An inner node on the way down and the child slot taken.
  struct Step {
    uint32_t node;
    unsigned slot;
  };

  // The last child whose low bound is not above `value`.
  unsigned ChildFor(const Inner& inner, const T& value) const {
    unsigned i = 1;
    while (i < inner.size && !m_less(value, inner.lows[i])) ++i;
    return i - 1;
  }
  unsigned LowerBound(const Leaf& leaf, const T& value) const {
    return static_cast<unsigned>(
        std::lower_bound(leaf.values, leaf.values + leaf.size, value, m_less) - leaf.values);
  }
  // The leaf where `value` belongs; `path` gets the inner nodes above it.
  uint32_t Descend(const T& value, Step* path) const {
    uint32_t node = m_root;
    for (uint32_t h = 0; h < m_height; ++h) {
      const Inner& inner = m_inners[node];
      path[h] = {node, ChildFor(inner, value)};
      node = inner.children[path[h].slot];
    }
    return node;
  }
  // Adds `delta` (possibly negative) to the weights along `path`.
  void AddToPath(const Step* path, int64_t delta) {
    for (uint32_t h = 0; h < m_height; ++h)
      m_inners[path[h].node].weights[path[h].slot] += static_cast<uint64_t>(delta);
    m_weight += static_cast<uint64_t>(delta);
  }

  // A fresh node from a pool, reusing a freed one when there is one. The
  // pool may move: no reference into it is held across this call.
  template <class Node>
  static uint32_t NewNode(VxMemoryVector<Node>& pool, VxMemoryVector<uint32_t>& free) {
    if (free.empty()) {
      pool.emplace_back();
      return static_cast<uint32_t>(pool.size() - 1);
    }
    const uint32_t i = free.back();
    free.pop_back();
    pool[i].size = 0;
    return i;
  }
  uint32_t NewLeaf() { return NewNode(m_leaves, m_free_leaves); }
  uint32_t NewInner() { return NewNode(m_inners, m_free_inners); }

  // ---- node helpers: leaves and inner nodes alike ----

  // Calls fn on each parallel array of a node (or of two nodes, pairwise).
  template <class Fn>
  static void Arrays(Leaf& a, Leaf& b, Fn&& fn) {
    fn(a.values, b.values);
    fn(a.counts, b.counts);
  }
  template <class Fn>
  static void Arrays(Inner& a, Inner& b, Fn&& fn) {
    fn(a.children, b.children);
    fn(a.weights, b.weights);
    fn(a.lows, b.lows);
  }
  template <class Node, class Fn>
  static void Arrays(Node& n, Fn&& fn) {
    Arrays(n, n, [&](auto* x, auto*) { fn(x); });
  }

  static constexpr unsigned Capacity(const Leaf&) { return kLeafCapacity; }
  static constexpr unsigned Capacity(const Inner&) { return kInnerCapacity; }
  static uint64_t WeightOf(const Leaf& leaf) {
    if (!kCountDuplicates) return leaf.size;
    uint64_t w = 0;
    for (unsigned i = 0; i < leaf.size; ++i) w += leaf.counts[i];
    return w;
  }
  static uint64_t WeightOf(const Inner& inner) {
    uint64_t w = 0;
    for (unsigned i = 0; i < inner.size; ++i) w += inner.weights[i];
    return w;
  }
  // The lower bound of a node's keys: a leaf's first value; for an inner
  // node, the bound of its first child, which only its parent knows and
  // lends it (SetLow) while the node is split, merged or rebalanced.
  static const T& Low(const Leaf& leaf) { return leaf.values[0]; }
  static const T& Low(const Inner& inner) { return inner.lows[0]; }
  static void SetLow(Leaf&, const T&) {}
  static void SetLow(Inner& inner, const T& low) { inner.lows[0] = low; }

  Leaf& NodeAt(uint32_t index, Leaf*) { return m_leaves[index]; }
  Inner& NodeAt(uint32_t index, Inner*) { return m_inners[index]; }
  void Free(uint32_t index, Leaf*) { m_free_leaves.push_back(index); }
  void Free(uint32_t index, Inner*) { m_free_inners.push_back(index); }

  // Opens a slot at `at` (the node has room for one more).
  template <class Node>
  static void OpenSlot(Node& n, unsigned at) {
    Arrays(n, [&](auto* x) { std::copy_backward(x + at, x + n.size, x + n.size + 1); });
    ++n.size;
  }
  template <class Node>
  static void CloseSlot(Node& n, unsigned at) {
    Arrays(n, [&](auto* x) { std::copy(x + at + 1, x + n.size, x + at); });
    --n.size;
  }
  // Moves the first k slots of b to the end of a.
  template <class Node>
  static void MoveLeft(Node& a, Node& b, unsigned k) {
    Arrays(a, b, [&](auto* x, auto* y) {
      std::copy(y, y + k, x + a.size);
      std::copy(y + k, y + b.size, y);
    });
    a.size += k;
    b.size -= k;
  }
  // Moves the last k slots of a to the front of b.
  template <class Node>
  static void MoveRight(Node& a, Node& b, unsigned k) {
    Arrays(a, b, [&](auto* x, auto* y) {
      std::copy_backward(y, y + b.size, y + b.size + k);
      std::copy(x + a.size - k, x + a.size, y);
    });
    a.size -= k;
    b.size += k;
  }

  // ---- growth ----

  // Moves the upper half of the overfull node `index` (a leaf, or the inner
  // node path[depth]) into a new right neighbour, which its parent (or a new
  // root) then takes.
  template <class Node>
  void Split(Step* path, uint32_t depth, uint32_t index) {
    const uint32_t right = std::is_same_v<Node, Leaf> ? NewLeaf() : NewInner();
    Node& l = NodeAt(index, static_cast<Node*>(nullptr));  // after the pool may have moved
    Node& r = NodeAt(right, static_cast<Node*>(nullptr));
    MoveRight(l, r, l.size - l.size / 2);
    InsertChild(path, depth, right, WeightOf(r), Low(r));
  }
  // Gives the node just split (the child below path[depth - 1], or the root
  // when depth is 0) its new right neighbour `child`. `low` is taken by value:
  // it comes from a node, and a new root may move the node pool.
  void InsertChild(Step* path, uint32_t depth, uint32_t child, uint64_t weight, T low) {
    if (depth == 0) {
      const uint32_t root = NewInner();
      Inner& r = m_inners[root];
      r.size = 2;
      r.children[0] = m_root;
      r.children[1] = child;
      r.weights[0] = m_weight - weight;
      r.weights[1] = weight;
      r.lows[0] = r.lows[1] = low;
      m_root = root;
      ++m_height;
      return;
    }
    const Step& step = path[depth - 1];
    Inner& p = m_inners[step.node];
    const unsigned at = step.slot + 1;
    OpenSlot(p, at);
    p.weights[step.slot] -= weight;
    p.children[at] = child;
    p.weights[at] = weight;
    p.lows[at] = low;
    if (p.size > kInnerCapacity) Split<Inner>(path, depth - 1, step.node);
  }

  // ---- shrinking ----

  // The child below path[depth - 1] fell below a quarter of its capacity:
  // it merges with a neighbour, or borrows from it when both would not fit
  // in one node. A merge takes a child from the parent, which may then
  // shrink in turn; a root left with one child gives way to it.
  template <class Node>
  void Shrink(Step* path, uint32_t depth) {
    const Step& step = path[depth - 1];
    Inner& p = m_inners[step.node];
    const unsigned li = step.slot > 0 ? step.slot - 1 : 0, ri = li + 1;
    Node& a = NodeAt(p.children[li], static_cast<Node*>(nullptr));
    Node& b = NodeAt(p.children[ri], static_cast<Node*>(nullptr));
    SetLow(b, p.lows[ri]);
    if (a.size + b.size <= Capacity(a)) {
      MoveLeft(a, b, b.size);
      p.weights[li] += p.weights[ri];
      Free(p.children[ri], static_cast<Node*>(nullptr));
      CloseSlot(p, ri);
      if (depth - 1 == 0) {
        if (p.size == 1) {
          m_free_inners.push_back(m_root);
          m_root = p.children[0];
          --m_height;
        }
      } else if (p.size < kMinInner) {
        Shrink<Inner>(path, depth - 1);
      }
      return;
    }
    const unsigned target = (a.size + b.size) / 2;
    if (a.size < target) {
      MoveLeft(a, b, target - a.size);
    } else {
      MoveRight(a, b, a.size - target);
    }
    p.weights[li] = WeightOf(a);
    p.weights[ri] = WeightOf(b);
    p.lows[ri] = Low(b);
  }

  template <class Fn>
  void Walk(uint32_t node, uint32_t height, Fn& fn) const {
    if (height == 0) {
      const Leaf& leaf = m_leaves[node];
      for (unsigned i = 0; i < leaf.size; ++i) fn(leaf.values[i], leaf.counts[i]);
      return;
    }
    const Inner& inner = m_inners[node];
    for (unsigned i = 0; i < inner.size; ++i) Walk(inner.children[i], height - 1, fn);
  }

  VxMemoryVector<Leaf> m_leaves;
  VxMemoryVector<Inner> m_inners;
  VxMemoryVector<uint32_t> m_free_leaves;
  VxMemoryVector<uint32_t> m_free_inners;
  uint32_t m_root = 0;
  uint32_t m_height = 0;  // inner levels above the leaves
  uint64_t m_weight = 0;
  uint32_t m_size = 0;
  [[no_unique_address]] Less m_less;
};

}  // namespace vx
