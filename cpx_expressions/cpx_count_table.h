// A hash table from a fixed-size value to a count: the multiplicity map of
// the accumulators whose results do not depend on the order of the values.
//
// Open addressing with linear probing over one array of slots (the value and
// its count side by side, four slots to a cache line for 8-byte values), so
// a lookup usually reads one line, and removal shifts later entries of a
// probe run back instead of leaving tombstones, so a table whose entries
// come and go (a sliding window) keeps short runs and never allocates once
// it has grown. The table doubles when it would be more than half full and
// never shrinks.
//
// A slot may hold `Columns` counts: one per accumulator that shares the
// table (see CpxHashedMultiplicityMap::Share). A slot whose counts are all
// 0 is empty; each sharer reads and changes its own column only.
//
// `Hash` must give equal hashes to values that `Equal` takes as equal.
//
// Threads: none; a table belongs to the states of one group.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "support/memory.h"

namespace vx {

template <class T, class Hash, class Equal, unsigned Columns = 1>
class CpxCountTable {
 public:
  struct Slot {
    T value;
    uint32_t count[Columns];  // all 0: the slot is empty
  };
  static bool Occupied(const Slot& s) {
    uint32_t any = 0;
    for (unsigned c = 0; c < Columns; ++c) any |= s.count[c];
    return any != 0;
  }

  // The slot holding a value equal to `v`, or nullptr.
  Slot* Find(const T& v) {
    if (m_slots.empty()) return nullptr;
    for (size_t i = Home(v);; i = (i + 1) & m_mask) {
      Slot& s = m_slots[i];
      if (!Occupied(s)) return nullptr;
      if (Equal{}(s.value, v)) return &s;
    }
  }
  const Slot* Find(const T& v) const { return const_cast<CpxCountTable*>(this)->Find(v); }

  // The slot of `v`, holding `v` with counts 0 when it was not there; the
  // caller gives it a count of at least 1 before any other change.
  Slot& FindOrInsert(const T& v) {
    if (!m_slots.empty()) {
      size_t i = Home(v);
      for (;; i = (i + 1) & m_mask) {
        Slot& s = m_slots[i];
        if (!Occupied(s)) break;
        if (Equal{}(s.value, v)) return s;
      }
      if (2 * (m_size + 1) <= m_slots.size()) return Take(i, v);
    }
    Grow();
    size_t i = Home(v);
    while (Occupied(m_slots[i])) i = (i + 1) & m_mask;
    return Take(i, v);
  }

  // Empties `slot` (a slot of this table), moving back the entries after it
  // that belong before it.
  void Erase(Slot& slot) {
    size_t hole = static_cast<size_t>(&slot - m_slots.data());
    for (size_t j = (hole + 1) & m_mask;; j = (j + 1) & m_mask) {
      Slot& s = m_slots[j];
      if (!Occupied(s)) break;
      const size_t home = Home(s.value);
      // s may fill the hole when its home is not cyclically in (hole, j].
      const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
      if (!stays) {
        m_slots[hole] = s;
        hole = j;
      }
    }
    for (uint32_t& count : m_slots[hole].count) count = 0;
    --m_size;
  }

  size_t Size() const { return m_size; }
  bool Empty() const { return m_size == 0; }
  // Calls fn(value, count) for every entry whose count in `column` is not
  // 0, in no particular order.
  template <class Fn>
  void ForEach(Fn&& fn, unsigned column = 0) const {
    for (const Slot& s : m_slots)
      if (s.count[column]) fn(s.value, s.count[column]);
  }
  // Calls fn(value, count) for every slot with its count in `column`, empty
  // ones included (count 0, value unspecified): a caller that copies values
  // out can do it without a branch on each slot.
  template <class Fn>
  void ForEachSlot(Fn&& fn, unsigned column = 0) const {
    for (const Slot& s : m_slots) fn(s.value, s.count[column]);
  }
  // Calls fn(value, counts) for every slot with all its counts, empty ones
  // included.
  template <class Fn>
  void ForEachSlotAll(Fn&& fn) const {
    for (const Slot& s : m_slots) fn(s.value, s.count);
  }
  // Announces a lookup of `v`, so that its line is on its way while other
  // work goes on.
  void Prefetch(const T& v) const {
    if (!m_slots.empty()) __builtin_prefetch(&m_slots[Home(v)]);
  }

 private:
  size_t Home(const T& v) const { return static_cast<size_t>(Hash{}(v)) & m_mask; }
  Slot& Take(size_t i, const T& v) {
    ++m_size;
    m_slots[i].value = v;
    return m_slots[i];
  }
  void Grow() {
    VxMemoryVector<Slot> old(m_slots.empty() ? 8 : 2 * m_slots.size(), Slot{});
    old.swap(m_slots);
    m_mask = m_slots.size() - 1;
    for (const Slot& s : old) {
      if (!Occupied(s)) continue;
      size_t i = Home(s.value);
      while (Occupied(m_slots[i])) i = (i + 1) & m_mask;
      m_slots[i] = s;
    }
  }

  VxMemoryVector<Slot> m_slots;
  size_t m_mask = 0;
  size_t m_size = 0;
};

}  // namespace vx
