// A hash table from a fixed-size value to a count: the multiplicity map of
// the accumulators whose results do not depend on the order of the values.
//
// Open addressing with linear probing over one array of slots (the value and
// its count side by side, four slots to a cache line), so a lookup usually
// reads one line, and removal shifts later entries of a probe run back
// instead of leaving tombstones, so a table whose entries come and go (a
// sliding window) keeps short runs and never allocates once it has grown. A
// slot whose count is 0 is empty. The table doubles when it would be more
// than half full and never shrinks.
//
// `Hash` must give equal hashes to values that `Equal` takes as equal.
//
// Threads: none; a table belongs to one accumulator state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "support/memory.h"

namespace vx {

template <class T, class Hash, class Equal>
class CpxCountTable {
 public:
  struct Slot {
    T value;
    uint32_t count;  // 0: the slot is empty
  };

  // The slot holding a value equal to `v`, or nullptr.
  Slot* Find(const T& v) {
    if (m_slots.empty()) return nullptr;
    for (size_t i = Home(v);; i = (i + 1) & m_mask) {
      Slot& s = m_slots[i];
      if (s.count == 0) return nullptr;
      if (Equal{}(s.value, v)) return &s;
    }
  }
  const Slot* Find(const T& v) const { return const_cast<CpxCountTable*>(this)->Find(v); }

  // The slot of `v`, holding `v` with count 0 when it was not there; the
  // caller gives it a count of at least 1 before any other change.
  Slot& FindOrInsert(const T& v) {
    if (!m_slots.empty()) {
      size_t i = Home(v);
      for (;; i = (i + 1) & m_mask) {
        Slot& s = m_slots[i];
        if (s.count == 0) break;
        if (Equal{}(s.value, v)) return s;
      }
      if (2 * (m_size + 1) <= m_slots.size()) return Take(i, v);
    }
    Grow();
    size_t i = Home(v);
    while (m_slots[i].count) i = (i + 1) & m_mask;
    return Take(i, v);
  }

  // Empties `slot` (a slot of this table), moving back the entries after it
  // that belong before it.
  void Erase(Slot& slot) {
    size_t hole = static_cast<size_t>(&slot - m_slots.data());
    for (size_t j = (hole + 1) & m_mask;; j = (j + 1) & m_mask) {
      Slot& s = m_slots[j];
      if (s.count == 0) break;
      const size_t home = Home(s.value);
      // s may fill the hole when its home is not cyclically in (hole, j].
      const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
      if (!stays) {
        m_slots[hole] = s;
        hole = j;
      }
    }
    m_slots[hole].count = 0;
    --m_size;
  }

  size_t Size() const { return m_size; }
  bool Empty() const { return m_size == 0; }
  // Calls fn(value, count) for every entry, in no particular order.
  template <class Fn>
  void ForEach(Fn&& fn) const {
    for (const Slot& s : m_slots)
      if (s.count) fn(s.value, s.count);
  }
  // Calls fn(value, count) for every slot, empty ones included (count 0,
  // value unspecified): a caller that copies values out can do it without
  // a branch on each slot.
  template <class Fn>
  void ForEachSlot(Fn&& fn) const {
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
    VxMemoryVector<Slot> old(m_slots.empty() ? 8 : 2 * m_slots.size(), Slot{T{}, 0});
    old.swap(m_slots);
    m_mask = m_slots.size() - 1;
    for (const Slot& s : old) {
      if (!s.count) continue;
      size_t i = Home(s.value);
      while (m_slots[i].count) i = (i + 1) & m_mask;
      m_slots[i] = s;
    }
  }

  VxMemoryVector<Slot> m_slots;
  size_t m_mask = 0;
  size_t m_size = 0;
};

}  // namespace vx
