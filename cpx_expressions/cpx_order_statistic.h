// An ordered multiset that reads its elements by position: the live values of
// a Median accumulator.
//
// `CpxOrderStatisticTree<T, Less, kCountDuplicates>` keeps one node per
// distinct value with the value's multiplicity, in an AVL tree whose nodes
// also carry the weight of their subtree. The weight of a node is its
// multiplicity when `kCountDuplicates` is true (positions then run over the
// sorted sequence of all values, each repeated as often as it occurs) and 1
// otherwise (positions run over the sorted distinct values). So the tree is
// both the value-multiplicity map and the sorted sequence of a Median state,
// without storing a value once per row: inserting, erasing one occurrence and
// reading the element at a position all take O(log d) steps for d distinct
// values.
//
// Nodes live in one accounted vector and refer to each other by index (index
// 0 is the empty tree), with freed nodes kept on a free list for reuse.
//
// `Less` must be a strict weak order over T; values that are equivalent under
// it are one element (the first one inserted is the one kept).
//
// Threads: none; one tree belongs to one accumulator state.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "support/memory.h"

namespace vx {

template <class T, class Less, bool kCountDuplicates>
class CpxOrderStatisticTree {
 public:
  CpxOrderStatisticTree() { m_nodes.emplace_back(); }  // node 0: the empty tree

  // A value as held (the first one inserted of its equivalents) and its
  // multiplicity.
  struct Entry {
    T value;
    uint32_t count;
  };

  // Adds `n` occurrences of `value` (n >= 1); returns its entry.
  Entry Add(const T& value, uint32_t n = 1) {
    Entry entry{value, 0};
    m_root = Insert(m_root, value, n, entry);
    return entry;
  }
  // Removes one occurrence of `value`; returns its entry with the
  // multiplicity left (0 when the value is gone), or nothing when the value
  // is not held.
  std::optional<Entry> Remove(const T& value) {
    if (Count(value) == 0) return std::nullopt;
    Entry entry{value, 0};
    m_root = EraseOne(m_root, value, entry);
    return entry;
  }
  // The multiplicity of `value`; 0 when it is not held.
  uint32_t Count(const T& value) const {
    uint32_t i = m_root;
    while (i != 0) {
      const Node& n = m_nodes[i];
      if (m_less(value, n.value)) {
        i = n.left;
      } else if (m_less(n.value, value)) {
        i = n.right;
      } else {
        return n.count;
      }
    }
    return 0;
  }
  // Number of positions: all occurrences, or the distinct values.
  uint64_t Weight() const { return m_nodes[m_root].weight; }
  // Number of distinct values.
  uint32_t Size() const { return m_size; }
  bool Empty() const { return m_root == 0; }

  // The element at 0-based `position` (below Weight()) in ascending order.
  const T& At(uint64_t position) const {
    uint32_t i = m_root;
    for (;;) {
      const Node& n = m_nodes[i];
      const uint64_t left = m_nodes[n.left].weight;
      if (position < left) {
        i = n.left;
        continue;
      }
      position -= left;
      if (position < Own(n)) return n.value;
      position -= Own(n);
      i = n.right;
    }
  }

  // Calls fn(value, multiplicity) for every distinct value in ascending order.
  template <class Fn>
  void ForEach(Fn&& fn) const {
    Walk(m_root, fn);
  }

 private:
  struct Node {
    T value{};
    uint64_t weight = 0;  // of the subtree
    uint32_t count = 0;
    uint32_t left = 0;
    uint32_t right = 0;
    uint32_t height = 0;  // 0 for the empty tree
  };

  static uint64_t Own(const Node& n) { return kCountDuplicates ? n.count : 1; }

  void Update(uint32_t i) {
    Node& n = m_nodes[i];
    const Node& l = m_nodes[n.left];
    const Node& r = m_nodes[n.right];
    n.height = 1 + std::max(l.height, r.height);
    n.weight = l.weight + r.weight + Own(n);
  }
  int BalanceOf(uint32_t i) const {
    return static_cast<int>(m_nodes[m_nodes[i].left].height) -
           static_cast<int>(m_nodes[m_nodes[i].right].height);
  }
  uint32_t RotateRight(uint32_t i) {
    const uint32_t l = m_nodes[i].left;
    m_nodes[i].left = m_nodes[l].right;
    m_nodes[l].right = i;
    Update(i);
    Update(l);
    return l;
  }
  uint32_t RotateLeft(uint32_t i) {
    const uint32_t r = m_nodes[i].right;
    m_nodes[i].right = m_nodes[r].left;
    m_nodes[r].left = i;
    Update(i);
    Update(r);
    return r;
  }
  // Restores the AVL bound at `i` after one of its subtrees changed height
  // by one; returns the subtree's new root.
  uint32_t Rebalance(uint32_t i) {
    Update(i);
    const int balance = BalanceOf(i);
    if (balance > 1) {
      if (BalanceOf(m_nodes[i].left) < 0) m_nodes[i].left = RotateLeft(m_nodes[i].left);
      return RotateRight(i);
    }
    if (balance < -1) {
      if (BalanceOf(m_nodes[i].right) > 0) m_nodes[i].right = RotateRight(m_nodes[i].right);
      return RotateLeft(i);
    }
    return i;
  }

  uint32_t NewNode(const T& value, uint32_t n) {
    uint32_t i = m_free;
    if (i != 0) {
      m_free = m_nodes[i].left;
    } else {
      i = static_cast<uint32_t>(m_nodes.size());
      m_nodes.emplace_back();
    }
    Node& node = m_nodes[i];
    node = Node{};
    node.value = value;
    node.count = n;
    ++m_size;
    Update(i);
    return i;
  }
  void FreeNode(uint32_t i) {
    m_nodes[i] = Node{};
    m_nodes[i].left = m_free;
    m_free = i;
    --m_size;
  }

  // Node references are not held across NewNode, which may grow the vector.
  uint32_t Insert(uint32_t i, const T& value, uint32_t n, Entry& entry) {
    if (i == 0) {
      entry.count = n;
      return NewNode(value, n);
    }
    if (m_less(value, m_nodes[i].value)) {
      const uint32_t child = Insert(m_nodes[i].left, value, n, entry);
      m_nodes[i].left = child;
    } else if (m_less(m_nodes[i].value, value)) {
      const uint32_t child = Insert(m_nodes[i].right, value, n, entry);
      m_nodes[i].right = child;
    } else {
      entry = {m_nodes[i].value, m_nodes[i].count += n};
      Update(i);
      return i;
    }
    return Rebalance(i);
  }

  // Detaches the smallest node of subtree `i` into `min`; returns the rest.
  uint32_t DetachMin(uint32_t i, uint32_t& min) {
    if (m_nodes[i].left == 0) {
      min = i;
      return m_nodes[i].right;
    }
    m_nodes[i].left = DetachMin(m_nodes[i].left, min);
    return Rebalance(i);
  }

  // `value` is held in subtree `i`.
  uint32_t EraseOne(uint32_t i, const T& value, Entry& entry) {
    Node& n = m_nodes[i];
    if (m_less(value, n.value)) {
      n.left = EraseOne(n.left, value, entry);
      return Rebalance(i);
    }
    if (m_less(n.value, value)) {
      n.right = EraseOne(n.right, value, entry);
      return Rebalance(i);
    }
    entry = {n.value, --n.count};
    if (entry.count > 0) {
      Update(i);
      return i;
    }
    const uint32_t l = n.left, r = n.right;
    FreeNode(i);
    if (l == 0) return r;
    if (r == 0) return l;
    uint32_t min = 0;
    const uint32_t rest = DetachMin(r, min);
    m_nodes[min].left = l;
    m_nodes[min].right = rest;
    return Rebalance(min);
  }

  template <class Fn>
  void Walk(uint32_t i, Fn& fn) const {
    if (i == 0) return;
    Walk(m_nodes[i].left, fn);
    fn(m_nodes[i].value, m_nodes[i].count);
    Walk(m_nodes[i].right, fn);
  }

  VxMemoryVector<Node> m_nodes;
  uint32_t m_root = 0;
  uint32_t m_free = 0;  // first free node, chained through `left`
  uint32_t m_size = 0;
  [[no_unique_address]] Less m_less;
};

}  // namespace vx
