// Accumulators: aggregate operators that keep a running value per group.
//
// An accumulator is an ordinary operator whose evaluator keeps a state for
// it, one per group. A positive row adds its input value to the state, a
// negative row retracts it, and after every row the operator writes the
// group's current aggregate to its output field. Every kind is one state
// class (add / remove / result) run by one generic executor:
//
//   CpxExpressionOperator_Accumulator_Engine<Input, Out, State>
//     Input   how the input is read: a field class's values, or (Count,
//             CountRows) only whether the field or the row is there
//     Out     the output field class
//     State   the per-group state: AddValue(batch, v), RemoveValue(batch,
//             v) and Result(), an empty optional meaning NULL
//
// NULL policy (declared here once, for every accumulator): a NULL input
// changes nothing, neither added nor retracted, and the output is still
// written, so it always shows the group's current aggregate. Count and
// CountRows differ only in what counts as present (see their Input).
//
// Retracting what is not held (an empty counter, a value absent from the
// multiplicity map) logs VX_SERVER_EXTRA_NEGATIVE_TUPLE_REMOVE_REQUEST with
// "elem" (the value's text) and "method" (each kind's own fixed name) and
// raises, which ends the row; members a kind changed before its test stay
// changed, as each kind's comment says.
//
// Persistence: after each change a state writes the items it changed to the
// evaluator's batch (nothing without a batch): scalar members as one record
// each, every multiplicity-map entry as its own record (the value in the
// key, its count as the record's value), deleted when its count reaches
// zero. RestoreFromPersistentStorage assigns one record at a time.
//
// Value order: every ordered container over values uses CpxAccumulatorLess,
// the natural order of the type, with NaN after +infinity and equal to every
// other NaN (the order of tuple comparison and of the scalar Min and Max), so
// a NaN is one value of a map like any other and never breaks its order.
//
// Memory: states are allocated through the accounted allocator, and their
// containers are accounted containers, so VxMemoryGetUsage sees them.
//
// Threads: a state belongs to one group of one evaluator and is touched only
// by the thread running that evaluator; nothing here locks.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>

#include <algorithm>

#include "cpx_expressions/cpx_count_table.h"
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_order_statistic.h"
#include "support/hash.h"

namespace vx {

// ---- value order ----

// The order of every accumulator container (see the file comment).
// Transparent, so a map keyed by stored text is searched with a view.
struct CpxAccumulatorLess {
  using is_transparent = void;
  template <class A, class B>
  bool operator()(const A& a, const B& b) const {
    if constexpr (std::is_arithmetic_v<A>) {
      return OrderLess(a, b);
    } else {
      return std::string_view(a.data(), a.size()) < std::string_view(b.data(), b.size());
    }
  }
};
// The reverse order (Max): NaN first.
struct CpxAccumulatorGreater {
  using is_transparent = void;
  template <class A, class B>
  bool operator()(const A& a, const B& b) const {
    return CpxAccumulatorLess{}(b, a);
  }
};

// ---- reports ----

// Logs VX_SERVER_EXTRA_NEGATIVE_TUPLE_REMOVE_REQUEST with "elem" and
// "method", flushes the log and raises.
[[noreturn]] void CpxRaiseExtraNegativeTuple(const char* method, const std::string& elem);

// ---- values of a field class ----

// Reading, owning, printing and persisting the values of field class Field.
// Text and byte values are read as views of the input tuple and owned as
// accounted strings; fixed-size values are their own keys.
template <class Field>
struct CpxAccumulatorValue {
  using Value = typename Field::ValueType;
  static constexpr bool kBytes = std::is_same_v<Value, std::string_view>;
  using Key = std::conditional_t<kBytes, VxMemoryString, Value>;
  static constexpr std::optional<CpxFieldKind> kKind = Field::kKind;

  static bool Present(const CpxTuple& t, unsigned pos) { return t.HasFieldValue(pos); }
  static Value Read(const CpxTuple& t, unsigned pos) {
    if constexpr (kBytes) {
      return Field::GetView(&t, pos);
    } else {
      return Field::GetValue(&t, pos);
    }
  }
  static Key Own(Value v) {
    if constexpr (kBytes) {
      return Key(v.data(), v.size());
    } else {
      return v;
    }
  }
  // Stores v in k, reusing k's storage.
  static void Assign(Key& k, Value v) {
    if constexpr (kBytes) {
      k.assign(v.data(), v.size());
    } else {
      k = v;
    }
  }
  static Value View(const Key& k) {
    if constexpr (kBytes) {
      return Value(k.data(), k.size());
    } else {
      return k;
    }
  }
  // How an entry keyed `key` shows a value `v` equivalent to it. Equal
  // texts are the same bytes, so a text entry is shown by `v` (which
  // outlives an erased key); a fixed-size entry by its stored value (the
  // first added of its equivalents).
  static Value Held(const Key& key, Value v) {
    if constexpr (kBytes) {
      return v;
    } else {
      return key;
    }
  }
  // The value's text form, as messages show it.
  static std::string Text(Value v) {
    if constexpr (std::is_same_v<Field, CpxTupleField_Blob>) {
      return Field::ToHexString(v);
    } else if constexpr (kBytes) {
      return std::string(v);
    } else if constexpr (requires {
                           { Field::ToString(v) } -> std::convertible_to<std::string>;
                         }) {
      return Field::ToString(v);
    } else {
      char buf[64];
      const int n = Field::ToString(buf, sizeof buf, v);
      return std::string(buf, n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
    }
  }

  // One multiplicity-map entry as a record: text and bytes through the
  // counted-value records (one per value); a fixed-size value as the sub key
  // of a keyed record (its bits, zero-extended) holding the 4-byte count. A
  // count of 0 deletes the record.
  static void SaveCount(CpxExpressionOperatorState_Engine& state, CpxPersistentStorageBatch* batch,
                        uint32_t item, Value v, uint32_t count) {
    if (!batch) return;
    if constexpr (kBytes) {
      if (count > 0) {
        state.SaveCountStringValue(batch, item, v, count);
      } else {
        state.EraseCountStringValue(batch, item, v);
      }
    } else if (count > 0) {
      state.SaveKeyedRawBuffer(batch, item, Bits(v),
                               std::string_view(reinterpret_cast<const char*>(&count), 4));
    } else {
      state.EraseKeyedRawBuffer(batch, item, Bits(v));
    }
  }
  // Reads an entry saved by SaveCount; false when the record is not one.
  static bool LoadCount(const CpxPersistentStorageMessage_Put& message, unsigned block,
                        uint32_t item, Key& key, uint32_t& count) {
    if constexpr (kBytes) {
      std::string text;
      CpxExpressionOperatorState_Engine::LoadCountStringValue(message, block, item, text, count);
      key.assign(text.data(), text.size());
      return true;
    } else {
      std::string_view bytes;
      if (!CpxExpressionOperatorState_Engine::LoadRawBuffer(message, block, item, bytes) ||
          bytes.size() != 4)
        return false;
      std::memcpy(&count, bytes.data(), 4);
      const uint64_t bits = CpxExpressionOperatorState_Engine::LoadSubKey(message, block);
      std::memcpy(&key, &bits, sizeof key);  // little-endian: the low bytes
      return true;
    }
  }

 private:
  static uint64_t Bits(Value v) {
    static_assert(sizeof(Value) <= sizeof(uint64_t));
    uint64_t bits = 0;
    std::memcpy(&bits, &v, sizeof v);
    return bits;
  }
};

// Count: the input counts when its field holds a value; nothing is read.
struct CpxAccumulatorInput_AnyValue {
  struct Value {};
  static constexpr std::optional<CpxFieldKind> kKind = std::nullopt;  // any type
  static bool Present(const CpxTuple& t, unsigned pos) { return t.HasFieldValue(pos); }
  static Value Read(const CpxTuple&, unsigned) { return {}; }
};
// CountRows: every row counts, NULL or not.
struct CpxAccumulatorInput_AnyRow : CpxAccumulatorInput_AnyValue {
  static bool Present(const CpxTuple&, unsigned) { return true; }
};

// ---- multiplicity maps ----

// Hash and equality consistent with CpxAccumulatorLess: the values it takes
// as equivalent (0.0 and -0.0; every NaN) hash alike and are equal.
// Transparent, so a map keyed by stored text is searched with a view.
struct CpxAccumulatorHash {
  using is_transparent = void;
  template <class V>
  size_t operator()(const V& v) const {
    if constexpr (std::is_floating_point_v<V>) {
      if (std::isnan(v)) return CpxMix64(0x7ff8000000000000u);
      const double d = v == 0 ? 0.0 : static_cast<double>(v);
      uint64_t bits;
      std::memcpy(&bits, &d, sizeof bits);
      return CpxMix64(bits);
    } else if constexpr (std::is_arithmetic_v<V>) {
      return CpxMix64(static_cast<uint64_t>(v));
    } else {
      return CpxHashBytes(v.data(), v.size());
    }
  }
};
struct CpxAccumulatorEqual {
  using is_transparent = void;
  template <class A, class B>
  bool operator()(const A& a, const B& b) const {
    const CpxAccumulatorLess less;
    return !less(a, b) && !less(b, a);
  }
};

// A map from a value to the number of live rows that carry it; an entry
// exists only while its count is at least 1. Each entry holds its value as
// first added of its equivalents (one NaN of many, 0.0 or -0.0) until its
// count reaches 0. Three forms share one interface (Add, Remove, Count,
// Empty, Size), so a state picks the one its result needs:
//   CpxMultiplicityMap         ordered (a B-tree): First, ForEach in order
//   CpxHashedMultiplicityMap   hashed: for states that never look at order
//   CpxExtremeMultiplicityMap  hashed, and the first value in an order kept
//                              by a heap (Min and Max)
// (CpxOrderStatisticTree has the interface too.)

// The ordered form, for text and bytes (String Min and Max); B-tree nodes
// hold many entries, so a lookup touches few cache lines.
template <class Field, class Order = CpxAccumulatorLess>
class CpxMultiplicityMap {
 public:
  using Value = typename CpxAccumulatorValue<Field>::Value;
  using Key = typename CpxAccumulatorValue<Field>::Key;

  // A value as held and its count. A text's entry views `v` itself.
  struct Entry {
    Value value;
    uint32_t count;
  };

  // Adds `n` rows of `v`; returns its entry.
  Entry Add(Value v, uint32_t n = 1) {
    auto it = m_map.find(v);
    if (it == m_map.end()) it = m_map.emplace(CpxAccumulatorValue<Field>::Own(v), 0).first;
    it->second += n;
    return {CpxAccumulatorValue<Field>::Held(it->first, v), it->second};
  }
  // Removes one row of `v`: its entry with the count left (0 when the entry
  // is gone), or nothing when `v` is not held.
  std::optional<Entry> Remove(Value v) {
    auto it = m_map.find(v);
    if (it == m_map.end()) return std::nullopt;
    const Entry entry{CpxAccumulatorValue<Field>::Held(it->first, v), --it->second};
    if (entry.count == 0) m_map.erase(it);
    return entry;
  }
  uint32_t Count(Value v) const {
    auto it = m_map.find(v);
    return it == m_map.end() ? 0 : it->second;
  }
  bool Empty() const { return m_map.empty(); }
  uint32_t Size() const { return static_cast<uint32_t>(m_map.size()); }
  // The first value in the map's order; the map is not empty.
  Value First() const { return CpxAccumulatorValue<Field>::View(m_map.begin()->first); }
  // Calls fn(value, count) in the map's order.
  template <class Fn>
  void ForEach(Fn&& fn) const {
    for (const auto& [key, count] : m_map) fn(CpxAccumulatorValue<Field>::View(key), count);
  }

 private:
  absl::btree_map<Key, uint32_t, Order, VxMemoryObjectAllocator<std::pair<const Key, uint32_t>>>
      m_map;
};

// The record of a whole value table (see CpxAccumulatorState::Counts): the
// number of values held once (4 bytes), those values, then each value held
// more than once with its count (4 bytes), a value as its own bytes.
// A table that is a shared table's column with the counts of an earlier
// column is written as a reference to it instead: the word kReference (no
// record of values starts with it) and the column's number.
template <class Key>
class CpxWholeRecord {
 public:
  static constexpr size_t kWidth = sizeof(Key), kPairBytes = kWidth + 4;
  static constexpr uint32_t kReference = 0xFFFFFFFF;

  // The column a record refers to, when it is a reference.
  static std::optional<uint32_t> ReferenceOf(std::string_view bytes) {
    uint32_t word[2];
    if (bytes.size() != sizeof word) return std::nullopt;
    std::memcpy(word, bytes.data(), sizeof word);
    if (word[0] != kReference) return std::nullopt;
    return word[1];
  }
  static std::string_view Reference(uint32_t column, uint32_t (&word)[2]) {
    word[0] = kReference;
    word[1] = column;
    return {reinterpret_cast<const char*>(word), sizeof word};
  }
  // Calls add(value, count) for every entry of a record of values; false
  // when the bytes are not one.
  template <class Add>
  static bool Read(std::string_view bytes, Add&& add) {
    uint32_t singles = 0;
    if (bytes.size() < 4) return false;
    std::memcpy(&singles, bytes.data(), 4);
    const size_t pairs_at = 4 + size_t{singles} * kWidth;
    if (pairs_at > bytes.size() || (bytes.size() - pairs_at) % kPairBytes != 0) return false;
    Key key{};
    for (size_t at = 4; at < pairs_at; at += kWidth) {
      std::memcpy(&key, bytes.data() + at, kWidth);
      add(key, 1u);
    }
    for (size_t at = pairs_at; at < bytes.size(); at += kPairBytes) {
      uint32_t n = 0;
      std::memcpy(&key, bytes.data() + at, kWidth);
      std::memcpy(&n, bytes.data() + at + kWidth, 4);
      if (n < 2) return false;
      add(key, n);
    }
    return true;
  }

  // Starts a record of at most `entries` entries.
  void Start(size_t entries) {
    m_bytes.resize(4 + (entries + 1) * kWidth);
    m_at = m_bytes.data() + 4;
    m_pairs.clear();
    m_entries = 0;
  }
  size_t Entries() const { return m_entries; }
  // One slot of a table: its value and count (0: an empty slot, left out).
  // Every value is copied and kept only when held once, so that the loop
  // over a table has no branch for the common case (the room for one value
  // beyond the last takes the copy after it).
  void Take(Key held, uint32_t n) {
    m_entries += n != 0;
    if (n > 1) [[unlikely]] {
      char pair[kPairBytes];
      std::memcpy(pair, &held, kWidth);
      std::memcpy(pair + kWidth, &n, 4);
      m_pairs.append(pair, kPairBytes);
    }
    std::memcpy(m_at, &held, kWidth);
    m_at += n == 1 ? kWidth : 0;
  }
  const std::string& Bytes() const { return m_bytes; }
  const std::string& Finish() {
    const uint32_t singles = static_cast<uint32_t>((m_at - (m_bytes.data() + 4)) / kWidth);
    std::memcpy(m_bytes.data(), &singles, 4);
    m_bytes.resize(4 + size_t{singles} * kWidth);
    m_bytes += m_pairs;
    return m_bytes;
  }

 private:
  std::string m_bytes;  // reused from record to record
  std::string m_pairs;
  char* m_at = nullptr;
  size_t m_entries = 0;
};

uint64_t CpxNextSharedTableId();
class CpxAccumulatorState;

// A count table that accumulators of one group share when they count the
// values of the same input (the standard deviation, Min and Max of one
// column, say): each keeps its counts in a column of its own, so that a
// row's value is looked up in one slot, one cache line, rather than in one
// table per accumulator. The group's evaluator owns it (see
// CpxExpressionOperator_Engine::ShareCounts).
template <class Key>
struct CpxSharedCountTable final : CpxSharedState_Engine {
  static constexpr unsigned kColumns = CpxExpressionOperator_Engine::kCountsShareColumns;
  CpxCountTable<Key, CpxAccumulatorHash, CpxAccumulatorEqual, kColumns> table;
  uint64_t changes = 0;  // counted by every change of any column
  const uint64_t id = CpxNextSharedTableId();
  unsigned columns = 0;  // columns handed out
  // Who keeps each column, for writing the records of all columns at once.
  struct Sharer {
    CpxAccumulatorState* state = nullptr;
    uint32_t item = 0;                // the item of its value table
    const bool* per_entry = nullptr;  // its table has one record per entry
    void* counts = nullptr;           // its Counts, and what enters its waiting values
    void (*enter_pending)(void* counts) = nullptr;
  };
  Sharer sharers[kColumns];
  uint64_t written_generation = 0;  // the batch the records were last written to
  // Each column's own forms of 0 and NaN (floating-point values; see
  // CpxHashedMultiplicityMap::Held).
  std::conditional_t<std::is_floating_point_v<Key>, Key, char> zero[kColumns] = {}, nan[kColumns] = {};

  Key Held(Key value, unsigned column) const {
    if constexpr (std::is_floating_point_v<Key>) {
      if (value == 0) return zero[column];
      if (std::isnan(value)) return nan[column];
    }
    return value;
  }
  // Writes the value table record of every column kept whole to `batch`,
  // once per batch: a column whose counts are those of an earlier column
  // (sharers that see the same rows) as a reference to that column (see
  // CpxAccumulatorState::Counts), the others whole, and an empty column's
  // record deleted. Any change of any column writes them all, so that a
  // reference never outlives the counts it refers to.
  void WriteAll(CpxPersistentStorageBatch& batch);
  // The whole-table record of `column`. The records of every column are
  // built in one pass over the slots and kept (per thread) until a count of
  // the table changes: the sharers of a table write their records one after
  // the other when a batch is written, so the others take theirs from there.
  const CpxWholeRecord<Key>& WholeRecord(unsigned column) const {
    struct Built {
      uint64_t id = 0, changes = 0;
      CpxWholeRecord<Key> records[kColumns];
    };
    thread_local Built built;
    if (built.id != id || built.changes != changes) {
      built.id = id;
      built.changes = changes;
      for (unsigned c = 0; c < columns; ++c) built.records[c].Start(table.Size());
      table.ForEachSlotAll([&](Key value, const uint32_t* counts) {
        for (unsigned c = 0; c < columns; ++c) built.records[c].Take(Held(value, c), counts[c]);
      });
      for (unsigned c = 0; c < columns; ++c) built.records[c].Finish();
    }
    return built.records[column];
  }
};

// A multiplicity container that can keep its counts in a shared table.
template <class M>
concept CpxSharesCounts = requires(M& m, std::unique_ptr<CpxSharedState_Engine>& shared) {
  m.Share(shared, 0u);
};

// The hashed form: one probe of an open-addressing table per change. A
// table that only loses and regains entries (a sliding window) reuses its
// slots without allocating. Fixed-size values live in a CpxCountTable (the
// value and its count in one slot), the map's own or a column of a table
// shared with other accumulators of the group (Share); texts in an Abseil
// flat hash map. Which one is decided when the state is created, so the
// branch on it goes the same way on every row.
template <class Field>
class CpxHashedMultiplicityMap {
  static constexpr bool kBytes = CpxAccumulatorValue<Field>::kBytes;

 public:
  using Value = typename CpxAccumulatorValue<Field>::Value;
  using Key = typename CpxAccumulatorValue<Field>::Key;
  using Entry = typename CpxMultiplicityMap<Field>::Entry;

  Entry Add(Value v, uint32_t n = 1) {
    if constexpr (kBytes) {
      auto it = m_map.find(v);
      if (it == m_map.end()) it = m_map.emplace(CpxAccumulatorValue<Field>::Own(v), 0).first;
      it->second += n;
      return {v, it->second};
    } else {
      if (m_shared) {
        auto& slot = m_shared->FindOrInsert(v);
        uint32_t& count = slot.count[m_column];
        if (count == 0) NoteFirst(v);
        count += n;
        ++m_owner->changes;
        return {Held(slot.value), count};
      }
      auto& slot = m_map.FindOrInsert(v);
      slot.count[0] += n;
      return {slot.value, slot.count[0]};
    }
  }
  std::optional<Entry> Remove(Value v) {
    if constexpr (kBytes) {
      auto it = m_map.find(v);
      if (it == m_map.end()) return std::nullopt;
      const Entry entry{v, --it->second};
      if (entry.count == 0) m_map.erase(it);
      return entry;
    } else if (m_shared) {
      auto* slot = m_shared->Find(v);
      if (!slot || slot->count[m_column] == 0) return std::nullopt;
      const Entry entry{Held(slot->value), --slot->count[m_column]};
      ++m_owner->changes;
      if (entry.count == 0) {
        --m_size;
        if (!SharedTable::Occupied(*slot)) m_shared->Erase(*slot);
      }
      return entry;
    } else {
      auto* slot = m_map.Find(v);
      if (!slot) return std::nullopt;
      const Entry entry{slot->value, --slot->count[0]};
      if (entry.count == 0) m_map.Erase(*slot);
      return entry;
    }
  }
  uint32_t Count(Value v) const {
    if constexpr (kBytes) {
      auto it = m_map.find(v);
      return it == m_map.end() ? 0 : it->second;
    } else if (m_shared) {
      const auto* slot = m_shared->Find(v);
      return slot ? slot->count[m_column] : 0;
    } else {
      const auto* slot = m_map.Find(v);
      return slot ? slot->count[0] : 0;
    }
  }
  // The value held for `v` (equivalent to it), or nullptr.
  const Key* FindHeld(Value v) const {
    if constexpr (kBytes) {
      auto it = m_map.find(v);
      return it == m_map.end() ? nullptr : &it->first;
    } else if (m_shared) {
      const auto* slot = m_shared->Find(v);
      if (!slot || slot->count[m_column] == 0) return nullptr;
      if constexpr (std::is_floating_point_v<Key>) {
        if (slot->value == 0) return &m_owner->zero[m_column];
        if (std::isnan(slot->value)) return &m_owner->nan[m_column];
      }
      return &slot->value;
    } else {
      const auto* slot = m_map.Find(v);
      return slot ? &slot->value : nullptr;
    }
  }
  bool Empty() const { return Size() == 0; }
  uint32_t Size() const {
    if constexpr (kBytes) {
      return static_cast<uint32_t>(m_map.size());
    } else {
      return static_cast<uint32_t>(m_shared ? m_size : m_map.Size());
    }
  }
  // Announces a lookup of `v` (fixed-size values only), for a caller that
  // adds many values at once.
  void Prefetch(Value v) const requires(!kBytes) {
    if (m_shared) {
      m_shared->Prefetch(v);
    } else {
      m_map.Prefetch(v);
    }
  }
  // Calls fn(value, count) for every entry, in no particular order.
  template <class Fn>
  void ForEachUnordered(Fn&& fn) const {
    if constexpr (kBytes) {
      for (const auto& [key, count] : m_map) fn(CpxAccumulatorValue<Field>::View(key), count);
    } else if (m_shared) {
      m_shared->ForEach([&](Key value, uint32_t n) { fn(Held(value), n); }, m_column);
    } else {
      m_map.ForEach(fn);
    }
  }
  // Calls fn(value, count) for every slot of the table, empty ones (count
  // 0) included (fixed-size values only).
  template <class Fn>
  void ForEachSlot(Fn&& fn) const requires(!kBytes) {
    if (m_shared) {
      m_shared->ForEachSlot([&](Key value, uint32_t n) { fn(Held(value), n); }, m_column);
    } else {
      m_map.ForEachSlot(fn);
    }
  }
  // Keeps the counts from now on in column `column` of the group's shared
  // table `shared` (made here when it does not exist yet); the map is empty.
  void Share(std::unique_ptr<CpxSharedState_Engine>& shared, unsigned column) requires(!kBytes) {
    if (!shared) shared.reset(new CpxSharedCountTable<Key>());
    m_owner = &static_cast<CpxSharedCountTable<Key>&>(*shared);
    m_shared = &m_owner->table;
    m_column = static_cast<uint8_t>(column);
    m_owner->columns = std::max(m_owner->columns, column + 1);
  }
  // The shared table the map is a column of, or null.
  CpxSharedCountTable<Key>* GetSharedTable() const requires(!kBytes) { return m_owner; }
  unsigned GetColumn() const { return m_column; }
  // Calls fn(value, count) for every entry of column `column` of the shared
  // table, each value in that column's form.
  template <class Fn>
  void ForEachOfColumn(unsigned column, Fn&& fn) const requires(!kBytes) {
    m_shared->ForEach([&](Key value, uint32_t n) { fn(m_owner->Held(value, column), n); }, column);
  }

 private:
  using SharedTable =
      CpxCountTable<Key, CpxAccumulatorHash, CpxAccumulatorEqual, CpxSharedCountTable<Key>::kColumns>;
  using OwnTable = CpxCountTable<Key, CpxAccumulatorHash, CpxAccumulatorEqual>;

  // A new entry of the map's column of a shared table. A shared slot holds
  // its value as the sharer that entered it first added it; of the values
  // with more than one form (0.0 and -0.0; every NaN) each column keeps the
  // form it added first itself, and the map reports that one (Held).
  void NoteFirst(Value v) {
    ++m_size;
    if constexpr (std::is_floating_point_v<Key>) {
      if (v == 0) m_owner->zero[m_column] = v;
      if (std::isnan(v)) m_owner->nan[m_column] = v;
    }
  }
  Value Held(Key value) const { return m_owner->Held(value, m_column); }

  std::conditional_t<kBytes,
                     absl::flat_hash_map<Key, uint32_t, CpxAccumulatorHash, CpxAccumulatorEqual,
                                         VxMemoryObjectAllocator<std::pair<const Key, uint32_t>>>,
                     OwnTable>
      m_map;
  CpxSharedCountTable<Key>* m_owner = nullptr;  // the shared table, when the map is a column of one
  SharedTable* m_shared = nullptr;               // its slots
  uint8_t m_column = 0;
  uint32_t m_size = 0;  // entries of the map's column of a shared table
};

// The hashed form with the first value in `Order` at hand, for fixed-size
// values (Min and Max). The first value is kept as held by its entry; a new
// entry replaces it when it comes first. Only when the first value's entry
// goes is the next one needed, and that is what a binary heap of the values
// (in `Order`) gives. The heap is built then, from the entries, and kept
// from there on: each new entry is pushed, and values whose entries have
// gone stay in it until they reach the top (they are dropped there) or the
// heap holds twice as many values as there are entries. At that point the
// heap is rebuilt from the entries, or, when no first value has left since
// it was last built, given up until one does. So a group that only grows
// (running aggregates) never pays for a heap; one whose first value leaves
// again and again (the minimum of an increasing value over a sliding
// window) keeps its heap and pays O(log n) a change; and a rebuild, O(n),
// comes at most once per n removals, so every change costs O(1) amortized
// besides the push.
//
// Until the first removal, a value whose count nobody reads (AddUncounted:
// no store, or a store that takes the table whole at commit) is not entered
// at once: it is appended to a list of pending values and the first value
// is updated from it. A group that only grows then costs an append a row
// instead of a probe of a table that outgrows the caches. The pending values
// enter the table, in arrival order (so an entry holds the first of its
// equivalents, as always), when a removal or a counted add needs the
// counts, or when the list is full and holds kPendingMax values or as many
// as the table (at least 16): a stream that repeats few values keeps a
// small list, and a list that has reached its size is not grown again.
// Entering many values at once fetches their slots ahead, and the table
// they go to is in the caches while they do. After the first removal every
// value is entered at once.
template <class Field, class Order>
class CpxExtremeMultiplicityMap {
  static_assert(!CpxAccumulatorValue<Field>::kBytes);

 public:
  using Value = typename CpxAccumulatorValue<Field>::Value;
  using Entry = typename CpxHashedMultiplicityMap<Field>::Entry;

  Entry Add(Value v, uint32_t n = 1) {
    if (!m_pending.empty()) EnterPending();
    return Enter(v, n);
  }
  void AddUncounted(Value v) {
    if (m_counted) {
      Enter(v, 1);
      return;
    }
    if (m_pending.size() == m_pending.capacity() &&
        m_pending.size() >= std::min<size_t>(kPendingMax, std::max<size_t>(16, m_counts.Size())))
      EnterPending();
    if (Empty() || Order{}(v, m_first)) m_first = v;
    m_pending.push_back(v);
  }
  std::optional<Entry> Remove(Value v) {
    if (!m_counted) {
      EnterPending();
      VxMemoryVector<Value>().swap(m_pending);
      m_counted = true;
    }
    return RemoveEntered(v);
  }
  uint32_t Count(Value v) {
    if (!m_pending.empty()) EnterPending();
    return m_counts.Count(v);
  }
  bool Empty() const { return m_counts.Empty() && m_pending.empty(); }
  uint32_t Size() {
    if (!m_pending.empty()) EnterPending();
    return m_counts.Size();
  }
  // At least the number of entries, without entering the pending values.
  size_t SizeBound() const { return m_counts.Size() + m_pending.size(); }
  // Calls fn(value, count) for every entry, in no particular order.
  template <class Fn>
  void ForEachUnordered(Fn&& fn) {
    if (!m_pending.empty()) EnterPending();
    m_counts.ForEachUnordered(fn);
  }
  // Calls fn(value, count) for every slot of the table, empty ones (count
  // 0) included.
  template <class Fn>
  void ForEachSlot(Fn&& fn) {
    if (!m_pending.empty()) EnterPending();
    m_counts.ForEachSlot(fn);
  }
  // See CpxHashedMultiplicityMap::Share and GetSharedTable.
  void Share(std::unique_ptr<CpxSharedState_Engine>& shared, unsigned column) {
    m_counts.Share(shared, column);
  }
  auto* GetSharedTable() const { return m_counts.GetSharedTable(); }
  // Enters the values that wait, so that the table holds every count.
  void EnterPendingValues() {
    if (!m_pending.empty()) EnterPending();
  }
  unsigned GetColumn() const { return m_counts.GetColumn(); }
  template <class Fn>
  void ForEachOfColumn(unsigned column, Fn&& fn) const {
    m_counts.ForEachOfColumn(column, fn);
  }
  // The first value in `Order`; the map is not empty.
  Value First() const { return m_first; }

 private:
  static constexpr size_t kPendingMax = 256;

  Entry Enter(Value v, uint32_t n) {
    const Entry entry = m_counts.Add(v, n);
    if (entry.count == n) {  // a new entry
      if (m_heap_kept) {
        m_heap.push_back(entry.value);
        std::push_heap(m_heap.begin(), m_heap.end(), HeapOrder{});
      }
      if (m_counts.Size() == 1 || Order{}(entry.value, m_first)) m_first = entry.value;
    }
    return entry;
  }
  void EnterPending() {
    constexpr size_t kAhead = 8;
    for (size_t i = 0; i < m_pending.size(); ++i) {
      if (i + kAhead < m_pending.size()) m_counts.Prefetch(m_pending[i + kAhead]);
      Enter(m_pending[i], 1);
    }
    m_pending.clear();
  }
  std::optional<Entry> RemoveEntered(Value v) {
    const std::optional<Entry> entry = m_counts.Remove(v);
    if (!entry || entry->count > 0) return entry;
    if (!Order{}(m_first, entry->value) && !Order{}(entry->value, m_first)) {
      // The first value has left.
      m_first_left = true;
      if (!m_heap_kept) Rebuild();
      while (!m_heap.empty()) {
        if (const Value* held = m_counts.FindHeld(m_heap.front())) {
          m_first = *held;
          break;
        }
        std::pop_heap(m_heap.begin(), m_heap.end(), HeapOrder{});
        m_heap.pop_back();
      }
    }
    if (m_heap_kept && m_heap.size() > 2 * size_t{m_counts.Size()} + 32) {
      if (m_first_left) {
        Rebuild();
      } else {
        m_heap.clear();
        m_heap_kept = false;
      }
    }
    return entry;
  }

  // std heaps put the greatest first: reversing `Order` puts its first on top.
  struct HeapOrder {
    bool operator()(Value a, Value b) const { return Order{}(b, a); }
  };
  void Rebuild() {
    m_heap.clear();
    m_counts.ForEachUnordered([&](Value v, uint32_t) { m_heap.push_back(v); });
    std::make_heap(m_heap.begin(), m_heap.end(), HeapOrder{});
    m_heap_kept = true;
    m_first_left = false;
  }

  CpxHashedMultiplicityMap<Field> m_counts;
  Value m_first{};
  bool m_heap_kept = false;   // every entry's value is in the heap
  bool m_first_left = false;  // a first value has left since the heap was built
  bool m_counted = false;     // a value has been removed: no value waits any more
  VxMemoryVector<Value> m_heap;
  VxMemoryVector<Value> m_pending;  // added, not yet entered, in arrival order
};

// ---- state base ----

// What every accumulator state shares: accounted allocation, saving and
// restoring members as items, and counted values that save their entries.
class CpxAccumulatorState : public CpxExpressionOperatorState_Engine {
 public:
  using Batch = CpxPersistentStorageBatch;

  static void* operator new(size_t size) {
    void* p = VxMemoryFuncMalloc(size);
    if (!p) throw std::bad_alloc();
    return p;
  }
  static void operator delete(void* p) { VxMemoryFuncFree(p); }

  // A multiplicity container whose changes are saved as item kItem.
  //
  // A container of fixed-size values with up to kWholeMax entries is one
  // record, written when the batch is written: the number of values held
  // once (4 bytes), those values, then each value held more than once with
  // its count (4 bytes); a value is its own bytes, as wide as its type
  // (little-endian, as every number here). A sliding window changes such a
  // table on every row, and one record per commit costs the store far less
  // than a put and a delete per row; most values of a window are held once,
  // so most entries cost their value's bytes only. A larger container (and
  // any of texts or bytes) has one record per entry, saved at each change
  // under the value as held, so that equivalent values (NaNs, zeros of
  // either sign) share one record; a count of 0 deletes it. The form
  // changes when the size crosses kWholeMax (up) or half of it (down), in
  // the batch of that change: the records of the old form are deleted there.
  template <class Field, class Container, uint32_t kItem>
  class Counts : public Container {
    using Access = CpxAccumulatorValue<Field>;

   public:
    using Value = typename Access::Value;
    static constexpr uint32_t kWholeMax = 1024;

    // Returns the value's new count.
    uint32_t Add(CpxAccumulatorState& state, Batch* batch, Value v) {
      const auto entry = Container::Add(v);
      Changed(state, batch, entry.value, entry.count);
      return entry.count;
    }
    // An add whose count nobody reads (see CpxExtremeMultiplicityMap): it
    // may wait while the container is written whole.
    void AddUncounted(CpxAccumulatorState& state, Batch* batch, Value v)
      requires(requires(Container c) { c.AddUncounted(v); }) {
      if (batch && (m_entries || Container::SizeBound() >= kWholeMax)) {
        Add(state, batch, v);
        return;
      }
      Container::AddUncounted(v);
      if (batch) state.DeferCounts(*batch, this, &WriteWhole);
    }
    // Returns the count left, or nothing when `v` is not held.
    std::optional<uint32_t> Remove(CpxAccumulatorState& state, Batch* batch, Value v) {
      const auto entry = Container::Remove(v);
      if (!entry) return std::nullopt;
      Changed(state, batch, entry->value, entry->count);
      return entry->count;
    }
    bool Load(CpxAccumulatorState& state, const PutMessage& message, unsigned block) {
      if constexpr (!Access::kBytes) {
        if (message.GetKey().GetValuesNumber() == block + 2) return LoadWhole(state, message);
      }
      typename Access::Key key{};
      uint32_t count = 0;
      if (!Access::LoadCount(message, block, kItem, key, count) || count == 0) return false;
      Container::Add(Access::View(key), count);
      m_entries = true;
      return true;
    }
    static constexpr uint32_t kNumber = kItem;

    // Keeps the counts in column `column` of the group's shared table, and
    // lets the table write this container's record (see
    // CpxSharedCountTable::WriteAll).
    void ShareAs(CpxAccumulatorState& state, std::unique_ptr<CpxSharedState_Engine>& shared,
                 unsigned column) requires CpxSharesCounts<Container> {
      Container::Share(shared, column);
      auto& sharer = Container::GetSharedTable()->sharers[column];
      sharer = {&state, kItem, &m_entries, this, nullptr};
      if constexpr (requires(Container c) { c.EnterPendingValues(); })
        sharer.enter_pending = [](void* counts) { static_cast<Counts*>(counts)->EnterPendingValues(); };
    }
    // After a restore: a table stored as a reference to another column
    // takes that column's counts, all of whose records have been read now.
    void FinishRestore() {
      if constexpr (CpxSharesCounts<Container>) {
        if (m_source_column < 0) return;
        const unsigned source = static_cast<unsigned>(m_source_column);
        m_source_column = -1;
        // Each value is in a slot already (the source's), so adding it
        // neither inserts nor grows: the walk over the slots stays valid.
        Container::ForEachOfColumn(source, [&](Value v, uint32_t n) { Container::Add(v, n); });
      }
    }

   private:
    void Changed(CpxAccumulatorState& state, Batch* batch, Value v, uint32_t count) {
      if (!batch) return;
      if constexpr (!Access::kBytes) {
        const size_t size = Container::Size();
        bool saved = false;
        if (!m_entries && size > kWholeMax) {
          m_entries = true;
          state.EraseRawBuffer(batch, kItem);
          ForEachEntry([&](Value held, uint32_t n) { Access::SaveCount(state, batch, kItem, held, n); });
          saved = true;
        } else if (m_entries && size < kWholeMax / 2) {
          m_entries = false;
          state.EraseAllOfItem(batch, kItem);
        }
        // A whole table is written when the batch is, and so is every
        // column of a shared table, whatever its form (WriteWhole).
        if (!m_entries || IsShared()) state.DeferCounts(*batch, this, &WriteWhole);
        if (!m_entries || saved) return;
      }
      Access::SaveCount(state, batch, kItem, v, count);
    }
    bool IsShared() const {
      if constexpr (CpxSharesCounts<Container>) return Container::GetSharedTable() != nullptr;
      return false;
    }
    template <class Fn>
    void ForEachEntry(Fn&& fn) {
      if constexpr (requires { Container::ForEachUnordered(fn); }) {
        Container::ForEachUnordered(fn);
      } else {
        Container::ForEach(fn);
      }
    }
    static void WriteWhole(CpxAccumulatorState& state, void* self, Batch& batch) {
      if constexpr (!Access::kBytes) {
        Counts& counts = *static_cast<Counts*>(self);
        if constexpr (CpxSharesCounts<Container>) {
          if (auto* shared = counts.Container::GetSharedTable()) return shared->WriteAll(batch);
        }
        if (counts.m_entries) return;
        if (counts.Container::Empty()) return state.EraseRawBuffer(&batch, kItem);
        thread_local CpxWholeRecord<typename Access::Key> record;
        record.Start(counts.Container::Size());
        auto take = [&](Value held, uint32_t n) { record.Take(held, n); };
        if constexpr (requires { counts.ForEachSlot(take); }) {
          counts.ForEachSlot(take);
        } else {
          counts.ForEachEntry(take);
        }
        state.SaveRawBuffer(&batch, kItem, record.Finish());
      }
    }
    bool LoadWhole(CpxAccumulatorState& state, const PutMessage& message) {
      using Record = CpxWholeRecord<typename Access::Key>;
      const std::string_view bytes = message.GetKey().GetRawValue();
      if (const std::optional<uint32_t> source = Record::ReferenceOf(bytes)) {
        if constexpr (CpxSharesCounts<Container>) {
          if (!Container::GetSharedTable() || *source >= Container::GetColumn()) return false;
          m_source_column = static_cast<int>(*source);
          m_entries = false;
          state.FinishRestoreLater(this, [](void* counts) { static_cast<Counts*>(counts)->FinishRestore(); });
          return true;
        }
        return false;
      }
      m_entries = false;
      return Record::Read(bytes, [&](const typename Access::Key& key, uint32_t n) {
        Container::Add(Access::View(key), n);
      });
    }
    bool m_entries = false;  // one record per entry (else one record for all)
    int m_source_column = -1;  // restored as a reference to this column's counts
  };

  // Runs what a restored container left for the end of the restore.
  void RestoreFinalize() override {
    if (m_restore_finisher)
      std::exchange(m_restore_finisher, nullptr)(reinterpret_cast<char*>(this) + m_finish_offset);
  }
  // Has `counts` (a member) finish its restore when every record is read.
  void FinishRestoreLater(void* counts, void (*finisher)(void* counts)) {
    m_restore_finisher = finisher;
    m_finish_offset =
        static_cast<uint32_t>(reinterpret_cast<char*>(counts) - reinterpret_cast<char*>(this));
  }

  // Writes the scalar items changed since the last write and the container
  // registered by DeferCounts, when the batch is written. An item whose
  // bytes are those it last wrote is not written again: the store holds
  // them already (a full window's count, back at its size after each row's
  // leave and arrival, costs nothing at commit).
  void WriteDeferred(Batch& batch) override {
    for (unsigned i = 0; i < m_item_count; ++i) {
      if (!(m_changed & (1u << i))) continue;
      const NotedItem& d = m_items[i];
      const char* bytes = reinterpret_cast<const char*>(this) + d.offset;
      const uint8_t bit = static_cast<uint8_t>(1u << i);
      if ((m_stored & bit) && std::memcmp(&m_stored_bytes[i], bytes, d.size) == 0) continue;
      SaveRawBuffer(&batch, d.item, std::string_view(bytes, d.size));
      if (d.size <= sizeof(uint64_t)) {
        std::memcpy(&m_stored_bytes[i], bytes, d.size);
        m_stored |= bit;
      }
    }
    m_changed = 0;
    if (m_counts_writer) {
      const CountsWriter writer = std::exchange(m_counts_writer, nullptr);
      writer(*this, reinterpret_cast<char*>(this) + m_counts_offset, batch);
    }
  }

 protected:
  // A scalar member as item `number`: the member's bytes.
  template <class M>
  struct Item {
    uint32_t number;
    M& member;
    bool Load(CpxAccumulatorState&, const PutMessage& message, unsigned) const {
      const std::string_view bytes = message.GetKey().GetRawValue();
      if (bytes.size() != sizeof(M)) return false;
      std::memcpy(&member, bytes.data(), sizeof(M));
      return true;
    }
  };

  // Saves a scalar member as item `item` when the batch is written (its
  // value then), so that a member changed on every row is written once per
  // commit.
  template <class M>
  void SaveItem(Batch* batch, uint32_t item, const M& member) {
    if (!batch) return;
    const std::ptrdiff_t offset =
        reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(this);
    static_assert(sizeof(M) <= UINT8_MAX);
    if (item <= UINT8_MAX && offset >= 0 && offset <= UINT16_MAX) [[likely]] {
      EnsureDeferred(*batch);
      unsigned i = 0;
      while (i < m_item_count && m_items[i].item != item) ++i;
      if (i == m_item_count && m_item_count < kItemsMax) [[unlikely]]
        m_items[m_item_count++] = {static_cast<uint8_t>(item), static_cast<uint8_t>(sizeof(M)),
                                   static_cast<uint16_t>(offset)};
      if (i < m_item_count) [[likely]] {
        m_changed |= static_cast<uint8_t>(1u << i);
        return;
      }
    }
    // No room to note it: written now.
    SaveRawBuffer(batch, item, std::string_view(reinterpret_cast<const char*>(&member), sizeof member));
  }

  // Assigns the one item of `message` that matches one of `items` (scalar
  // Items and Counts); raises VX_SERVER_EXPRESSION_PERSISTENCE_WRONG_RESTORED_VALUE_TYPE
  // naming `kind` when none matches or its bytes do not fit.
  template <class... Items>
  void RestoreItems(const PutMessage& message, unsigned block, const char* kind, Items&&... items) {
    const uint32_t item = GetValueType(message, block);
    const bool restored = ((NumberOf(items) == item && items.Load(*this, message, block)) || ...);
    if (!restored) RaiseUnknownItem(item, kind);
  }

 private:
  // A scalar item the state has saved: its number, size and place in the
  // state. Noted once, at its first save, and kept.
  struct NotedItem {
    uint8_t item;
    uint8_t size;
    uint16_t offset;
  };
  static constexpr unsigned kItemsMax = 6;
  using CountsWriter = void (*)(CpxAccumulatorState& state, void* counts, Batch& batch);

  // Waits in `batch` from now on; what was noted for an earlier batch that
  // was dropped without being written goes.
  void EnsureDeferred(Batch& batch) {
    if (IsDeferredIn(batch)) return;
    m_changed = 0;
    m_counts_writer = nullptr;
    Defer(batch);
  }
  void DeferCounts(Batch& batch, void* counts, CountsWriter writer) {
    EnsureDeferred(batch);
    m_counts_writer = writer;
    m_counts_offset = static_cast<uint32_t>(reinterpret_cast<char*>(counts) -
                                            reinterpret_cast<char*>(this));
  }

  template <class I>
  static uint32_t NumberOf(const I& item) {
    if constexpr (requires { item.number; }) {
      return item.number;
    } else {
      return I::kNumber;
    }
  }

  CountsWriter m_counts_writer = nullptr;
  uint32_t m_counts_offset = 0;
  uint32_t m_finish_offset = 0;
  void (*m_restore_finisher)(void* counts) = nullptr;
  uint8_t m_item_count = 0;
  uint8_t m_changed = 0;  // bit i: m_items[i] changed since it was last written
  uint8_t m_stored = 0;   // bit i: m_stored_bytes[i] holds what the store has of m_items[i]
  NotedItem m_items[kItemsMax] = {};
  uint64_t m_stored_bytes[kItemsMax] = {};
};

template <class Key>
void CpxSharedCountTable<Key>::WriteAll(CpxPersistentStorageBatch& batch) {
  if (written_generation == batch.GetGeneration()) return;
  written_generation = batch.GetGeneration();
  for (unsigned c = 0; c < columns; ++c)
    if (sharers[c].enter_pending) sharers[c].enter_pending(sharers[c].counts);
  auto whole = [&](unsigned c) {
    return sharers[c].state && !*sharers[c].per_entry && WholeRecord(c).Entries() > 0;
  };
  for (unsigned c = 0; c < columns; ++c) {
    const Sharer& sharer = sharers[c];
    if (!sharer.state || *sharer.per_entry) continue;
    const CpxWholeRecord<Key>& record = WholeRecord(c);
    if (record.Entries() == 0) {
      sharer.state->EraseRawBuffer(&batch, sharer.item);
      continue;
    }
    unsigned source = 0;
    while (source < c && !(whole(source) && WholeRecord(source).Bytes() == record.Bytes())) ++source;
    uint32_t reference[2];
    sharer.state->SaveRawBuffer(&batch, sharer.item,
                                source == c ? std::string_view(record.Bytes())
                                            : CpxWholeRecord<Key>::Reference(source, reference));
  }
}

template <class Field>
[[noreturn]] void CpxRaiseExtraNegative(const char* method, typename Field::ValueType v) {
  CpxRaiseExtraNegativeTuple(method, CpxAccumulatorValue<Field>::Text(v));
}

// A double result as the output's value type: itself for Float, truncated
// toward zero into the 64-bit count of Time and IntervalD2S.
template <class R>
std::optional<R> CpxAccumulatorResult(double r) {
  if constexpr (std::is_integral_v<R>) {
    return TruncateToInteger<R>(r);
  } else {
    return r;
  }
}

// ---- Sum, SumDistinct ----

// sum (T, wrapping for integers), zero count (T: live rows whose value is
// 0) and the has-value flag, set by the first add and never cleared. The
// result is NULL only before any value reached the group; once one has, it is
// the sum, 0 when every row has been retracted. A retraction of a value other
// than 0 is never questioned by Sum; SumDistinct also reports a value it does
// not hold. Items: Sum 0 sum, 1 zero count, 2 flag; SumDistinct 0 map
// entries, 1 sum, 2 zero count, 3 flag.
template <class In, bool kDistinct>
class CpxSumState final : public CpxAccumulatorState {
  using T = typename In::ValueType;
  static constexpr uint32_t kSumItem = kDistinct ? 1 : 0;
  static constexpr const char* kMethod = kDistinct ? "Accumulator_SumDistinct" : "Accumulator_Sum";

 public:
  // Saves the items that change: the sum, the zero count for a 0 and the
  // flag when it is first set.
  void AddValue(Batch* batch, T v) {
    const bool zero = v == T{};
    if (zero) m_zeros = WrapAdd(m_zeros, T{1});
    if constexpr (kDistinct) {
      if (m_values.Add(*this, batch, v) > 1) return SaveItem(batch, kSumItem + 1, m_zeros);
    }
    m_sum = WrapAdd(m_sum, v);
    SaveItem(batch, kSumItem, m_sum);
    if (zero) SaveItem(batch, kSumItem + 1, m_zeros);
    if (!m_flag) {
      m_flag = true;
      SaveItem(batch, kSumItem + 2, m_flag);
    }
  }
  // The zero count is changed before its test and stays changed when the
  // test fails (Sum has changed its sum too; for a 0 that is no change).
  void RemoveValue(Batch* batch, T v) {
    if constexpr (!kDistinct) m_sum = WrapSubtract(m_sum, v);
    if (v == T{}) {
      m_zeros = WrapSubtract(m_zeros, T{1});
      if (m_zeros < T{}) CpxRaiseExtraNegative<In>(kMethod, v);
    }
    if constexpr (kDistinct) {
      const std::optional<uint32_t> left = m_values.Remove(*this, batch, v);
      if (!left) CpxRaiseExtraNegative<In>(kMethod, v);
      if (*left == 0) m_sum = WrapSubtract(m_sum, v);
    }
    SaveItem(batch, kSumItem, m_sum);
    if (v == T{}) SaveItem(batch, kSumItem + 1, m_zeros);
  }
  std::optional<T> Result() const {
    if (!m_flag && m_sum == T{} && m_zeros == T{}) return std::nullopt;
    return m_sum;
  }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    if constexpr (kDistinct) {
      RestoreItems(message, block, "SumDistinct", m_values, Item<T>{1, m_sum}, Item<T>{2, m_zeros},
                   Item<bool>{3, m_flag});
    } else {
      RestoreItems(message, block, "Sum", Item<T>{0, m_sum}, Item<T>{1, m_zeros},
                   Item<bool>{2, m_flag});
    }
  }

 private:
  struct NoValues {};
  [[no_unique_address]] std::conditional_t<kDistinct, Counts<In, CpxHashedMultiplicityMap<In>, 0>,
                                           NoValues>
      m_values;
  T m_sum{};
  T m_zeros{};
  bool m_flag = false;
 public:
  // The value counts, which the executor may give a shared table's column.
  auto& CountedValues() { return m_values; }
};

// ---- Avg, AvgDistinct ----

// sum (double, or the 64-bit count for Time and IntervalD2S, which adds
// wrapping) and count (unsigned for Avg; the signed number of distinct
// values for AvgDistinct, whose map lets a value contribute while its count
// is at least 1). Result: sum / count in double, NULL while the count is
// below 1; for Time and IntervalD2S truncated toward zero. A failed
// retraction changes nothing. Items: Avg 0 sum, 1 count; AvgDistinct 0 map
// entries, 1 sum, 2 number.
template <class In, class Out, bool kDistinct>
class CpxAvgState final : public CpxAccumulatorState {
  using T = typename In::ValueType;
  using R = typename Out::ValueType;
  using Sum = std::conditional_t<std::is_integral_v<R>, int64_t, double>;
  using Count = std::conditional_t<kDistinct, int32_t, uint32_t>;
  static constexpr uint32_t kSumItem = kDistinct ? 1 : 0;
  static constexpr const char* kMethod = kDistinct ? "AvgDistinct" : "AvgAccumulator";

 public:
  void AddValue(Batch* batch, T v) {
    if constexpr (kDistinct) {
      if (m_values.Add(*this, batch, v) > 1) return;
    }
    m_sum = WrapAdd(m_sum, static_cast<Sum>(v));
    ++m_count;
    Save(batch);
  }
  void RemoveValue(Batch* batch, T v) {
    if constexpr (kDistinct) {
      const std::optional<uint32_t> left = m_values.Remove(*this, batch, v);
      if (!left) CpxRaiseExtraNegative<In>(kMethod, v);
      if (*left > 0) return;
    } else if (m_count == 0) {
      CpxRaiseExtraNegative<In>(kMethod, v);
    }
    m_sum = WrapSubtract(m_sum, static_cast<Sum>(v));
    --m_count;
    Save(batch);
  }
  std::optional<R> Result() const {
    if (m_count < 1) return std::nullopt;
    return CpxAccumulatorResult<R>(static_cast<double>(m_sum) / static_cast<double>(m_count));
  }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    if constexpr (kDistinct) {
      RestoreItems(message, block, "AvgDistinct", m_values, Item<Sum>{1, m_sum},
                   Item<Count>{2, m_count});
    } else {
      RestoreItems(message, block, "Avg", Item<Sum>{0, m_sum}, Item<Count>{1, m_count});
    }
  }

 private:
  void Save(Batch* batch) {
    SaveItem(batch, kSumItem, m_sum);
    SaveItem(batch, kSumItem + 1, m_count);
  }
  struct NoValues {};
  [[no_unique_address]] std::conditional_t<kDistinct, Counts<In, CpxHashedMultiplicityMap<In>, 0>,
                                           NoValues>
      m_values;
  Sum m_sum{};
  Count m_count = 0;
 public:
  // The value counts, which the executor may give a shared table's column.
  auto& CountedValues() { return m_values; }
};

// ---- Median, MedianDistinct ----

// The live values in an order-statistic tree, which is at once the
// multiplicity map and the sorted sequence (of every row for Median, of the
// distinct values for MedianDistinct). Result for n positions: NULL when
// n = 0; the element at n div 2 for odd n; for even n the two middle
// elements added in the input's own arithmetic (wrapping for integers) and
// halved: Integer and Long as double times 0.5, Time and IntervalD2S by
// integer division (toward zero), Float as doubles. A failed retraction
// changes nothing. Item 0: map entries; a restore adds each value with its
// count.
template <class In, class Out, bool kDistinct>
class CpxMedianState final : public CpxAccumulatorState {
  using T = typename In::ValueType;
  using R = typename Out::ValueType;
  static constexpr const char* kMethod = kDistinct ? "MedianDistinct" : "Median";

 public:
  void AddValue(Batch* batch, T v) { m_values.Add(*this, batch, v); }
  void RemoveValue(Batch* batch, T v) {
    if (!m_values.Remove(*this, batch, v)) CpxRaiseExtraNegative<In>(kMethod, v);
  }
  std::optional<R> Result() const {
    const uint64_t n = m_values.Weight();
    if (n == 0) return std::nullopt;
    if (n % 2 == 1) return static_cast<R>(m_values.At(n / 2));
    const auto [a, b] = m_values.AtPair(n / 2 - 1);
    if constexpr (std::is_floating_point_v<T>) {
      return (a + b) / 2;
    } else if constexpr (std::is_floating_point_v<R>) {
      return static_cast<double>(WrapAdd(a, b)) * 0.5;
    } else {
      return WrapAdd(a, b) / 2;
    }
  }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    RestoreItems(message, block, kMethod, m_values);
  }

 private:
  Counts<In, CpxOrderStatisticTree<T, CpxAccumulatorLess, !kDistinct>, 0> m_values;
};

// ---- StandardDeviation, MeanDeviation and their Distinct forms ----

// What tells the four deviation kinds apart: squares (StandardDeviation)
// or absolute deviations (MeanDeviation), every row or distinct values, and
// the names of their reports.
struct CpxDeviationKind {
  bool squares;
  bool distinct;
  const char* name;
  const char* empty_method;   // the group holds no value
  const char* absent_method;  // the value is not among those held
};
inline constexpr CpxDeviationKind kCpxStandardDeviation{
    true, false, "StandardDeviation", "Accumulator_StandardDeviation", "StandardDeviation"};
inline constexpr CpxDeviationKind kCpxStandardDeviationDistinct{
    true, true, "StandardDeviationDistinct", "Accumulator_StandardDeviation_Distinct",
    "Accumulator_StandardDeviation_Deviation"};
inline constexpr CpxDeviationKind kCpxMeanDeviation{false, false, "MeanDeviation", "MeanDeviation",
                                                    "MeanDeviation"};
inline constexpr CpxDeviationKind kCpxMeanDeviationDistinct{
    false, true, "MeanDeviationDistinct", "MeanDeviationDistinct", "MeanDeviationDistinct"};

// count (unsigned), sum (double), sum of squares (double; StandardDeviation
// only) and the multiplicity map. The plain forms count every row in the
// scalars; the Distinct forms only a value whose map count goes 0 -> 1 (and
// back at 1 -> 0). Squares are formed in the input's own arithmetic (32-bit
// for Integer, 64-bit for Long, Time and IntervalD2S, both wrapping) and only
// then converted to double.
//
// Retraction: an empty state reports Kind.empty_method with nothing
// changed. The plain forms then change the scalars before they look the
// value up, so a value not held reports Kind.absent_method with the scalars
// already changed; the Distinct forms look it up first and change nothing.
//
// Items: 0 count, 1 sum, 2 map entries, 3 sum of squares.
template <class In, class Out, const CpxDeviationKind& Kind>
class CpxDeviationState final : public CpxAccumulatorState {
  using T = typename In::ValueType;
  using R = typename Out::ValueType;

 public:
  void AddValue(Batch* batch, T v) {
    const uint32_t count = m_values.Add(*this, batch, v);
    if (!Kind.distinct || count == 1) Include(batch, v, +1);
  }
  void RemoveValue(Batch* batch, T v) {
    if (m_count == 0) CpxRaiseExtraNegative<In>(Kind.empty_method, v);
    if constexpr (!Kind.distinct) Include(batch, v, -1);
    const std::optional<uint32_t> left = m_values.Remove(*this, batch, v);
    if (!left) CpxRaiseExtraNegative<In>(Kind.absent_method, v);
    if (Kind.distinct && *left == 0) Include(batch, v, -1);
  }
  std::optional<R> Result() const {
    if (m_count == 0) return std::nullopt;
    const double n = static_cast<double>(m_count);
    if constexpr (Kind.squares) {
      // Rounding can leave d at or a little below 0: the result is then 0.
      const double d = n * m_squares - m_sum * m_sum;
      return CpxAccumulatorResult<R>(d > 0 ? std::sqrt(d) / n : 0.0);
    } else {
      const double mean = m_sum / n;
      double total = 0;
      m_values.ForEach([&](T value, uint32_t count) {
        total += std::fabs(static_cast<double>(value) - mean) * (Kind.distinct ? 1.0 : count);
      });
      return CpxAccumulatorResult<R>(total / n);
    }
  }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    RestoreItems(message, block, Kind.name, Item<uint32_t>{0, m_count}, Item<double>{1, m_sum},
                 m_values, Item<double>{Kind.squares ? 3u : ~0u, m_squares});
  }

 private:
  // Adds (sign +1) or retracts (-1) v in the scalars and saves them.
  void Include(Batch* batch, T v, int sign) {
    m_sum += sign * static_cast<double>(v);
    m_count += sign;
    SaveItem(batch, 1, m_sum);
    SaveItem(batch, 0, m_count);
    if constexpr (Kind.squares) {
      m_squares += sign * static_cast<double>(WrapMultiply(v, v));
      SaveItem(batch, 3, m_squares);
    }
  }

  // StandardDeviation only asks whether a value is held; MeanDeviation walks
  // the values in ascending order.
  using Map = std::conditional_t<Kind.squares, CpxHashedMultiplicityMap<In>,
                                 CpxOrderStatisticTree<T, CpxAccumulatorLess, false>>;
  Counts<In, Map, 2> m_values;
  uint32_t m_count = 0;
  double m_sum = 0;
  double m_squares = 0;
 public:
  // The value counts, which the executor may give a shared table's column.
  auto& CountedValues() { return m_values; }
};

// ---- Min, Max and their Distinct forms ----

// Min or Max (the map's order) and the name of the report.
struct CpxExtremeKind {
  bool descending;
  const char* method;
};
inline constexpr CpxExtremeKind kCpxMin{false, "Accumulator_Min"};
inline constexpr CpxExtremeKind kCpxMinDistinct{false, "Accumulator_MinDistinct"};
inline constexpr CpxExtremeKind kCpxMax{true, "Accumulator_Max"};
inline constexpr CpxExtremeKind kCpxMaxDistinct{true, "Accumulator_MaxDistinct"};

// The multiplicity map in the kind's order (ascending for Min, descending
// for Max); the result is its first key, NULL when it is empty. The Distinct
// forms give the same results and exist as operators of their own. A failed
// retraction changes nothing. Item 0: map entries.
template <class In, const CpxExtremeKind& Kind>
class CpxExtremeState final : public CpxAccumulatorState {
  using Value = typename CpxAccumulatorValue<In>::Value;

 public:
  // Nobody reads the value's count: a fixed-size value may wait to be
  // entered (see CpxExtremeMultiplicityMap and Counts::AddUncounted).
  void AddValue(Batch* batch, Value v) {
    if constexpr (!CpxAccumulatorValue<In>::kBytes) {
      return m_values.AddUncounted(*this, batch, v);
    } else {
      m_values.Add(*this, batch, v);
    }
  }
  void RemoveValue(Batch* batch, Value v) {
    if (!m_values.Remove(*this, batch, v)) CpxRaiseExtraNegative<In>(Kind.method, v);
  }
  std::optional<Value> Result() const {
    if (m_values.Empty()) return std::nullopt;
    return m_values.First();
  }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    RestoreItems(message, block, Kind.method, m_values);
  }

 private:
  using Order = std::conditional_t<Kind.descending, CpxAccumulatorGreater, CpxAccumulatorLess>;
  using Map = std::conditional_t<CpxAccumulatorValue<In>::kBytes, CpxMultiplicityMap<In, Order>,
                                 CpxExtremeMultiplicityMap<In, Order>>;
  Counts<In, Map, 0> m_values;
 public:
  // The value counts, which the executor may give a shared table's column.
  auto& CountedValues() { return m_values; }
};

// ---- CountDistinct ----

// The multiplicity map and the number of distinct values (signed 32-bit);
// the result is the number, never NULL. A failed retraction changes nothing.
// Items: 0 number, 1 map entries.
template <class In>
class CpxCountDistinctState final : public CpxAccumulatorState {
  using Value = typename CpxAccumulatorValue<In>::Value;

 public:
  void AddValue(Batch* batch, Value v) {
    if (m_values.Add(*this, batch, v) == 1) ++m_number;
    SaveItem(batch, 0, m_number);
  }
  void RemoveValue(Batch* batch, Value v) {
    const std::optional<uint32_t> left = m_values.Remove(*this, batch, v);
    if (!left) CpxRaiseExtraNegative<In>("Accumulator_CountDistinct", v);
    if (*left > 0) return;
    --m_number;
    SaveItem(batch, 0, m_number);
  }
  std::optional<int32_t> Result() const { return m_number; }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    RestoreItems(message, block, "CountDistinct", Item<int32_t>{0, m_number}, m_values);
  }

 private:
  Counts<In, CpxHashedMultiplicityMap<In>, 1> m_values;
  int32_t m_number = 0;
 public:
  // The value counts, which the executor may give a shared table's column.
  auto& CountedValues() { return m_values; }
};

// ---- Last ----

// The value of the last positive row with a non-NULL input. Retractions
// change nothing (retracting the row that supplied the value does not bring
// back an earlier one), and nothing is saved: after a restart the group has
// no last value until its next positive row.
template <class In>
class CpxLastState final : public CpxAccumulatorState {
  using Value = typename CpxAccumulatorValue<In>::Value;

 public:
  void AddValue(Batch*, Value v) {
    CpxAccumulatorValue<In>::Assign(m_last, v);
    m_flag = true;
  }
  void RemoveValue(Batch*, Value) {}
  std::optional<Value> Result() const {
    if (!m_flag) return std::nullopt;
    return CpxAccumulatorValue<In>::View(m_last);
  }

 private:
  typename CpxAccumulatorValue<In>::Key m_last{};
  bool m_flag = false;
};

// ---- Count, CountRows ----

// A signed 32-bit counter, never NULL. Retracting from a counter that is not
// above 0 logs "Negative count should never happen!" with "m_counter" and
// raises, the counter unchanged. Item 0: the counter.
class CpxCounterState final : public CpxAccumulatorState {
 public:
  using Value = CpxAccumulatorInput_AnyValue::Value;
  void AddValue(Batch* batch, Value) {
    ++m_counter;
    SaveItem(batch, 0, m_counter);
  }
  void RemoveValue(Batch* batch, Value) { DecrementCounter(batch); }
  void DecrementCounter(Batch* batch);
  std::optional<int32_t> Result() const { return m_counter; }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    RestoreItems(message, block, "Count", Item<int32_t>{0, m_counter});
  }

 private:
  int32_t m_counter = 0;
};

// ---- the executors ----

// Base of the accumulators and Threshold: the per-group state and the
// load-time shape check.
template <class StateClass>
class CpxExpressionOperator_Stateful_Engine : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  using State = StateClass;

  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override { return MakePtr<State>(); }

 protected:
  State& GetState(CpxExpressionEvaluator_Engine* ev, unsigned position) const {
    return static_cast<State&>(*ev->GetOperatorState(position));
  }
  // Raises unless the inputs are exactly of `inputs` (an empty kind accepts
  // any type) and there is one output of `out`.
  void InsureShape(std::initializer_list<std::optional<CpxFieldKind>> inputs,
                   CpxFieldKind out) const {
    InsureParameterCounts(static_cast<int>(inputs.size()), 1);
    unsigned i = 0;
    for (const std::optional<CpxFieldKind>& kind : inputs) {
      if (kind) InsureInputType(i, *kind);
      ++i;
    }
    InsureOutputType(0, out);
    CpxExpressionOperator_Engine::InsureValidParameters();
  }
};

// Runs one accumulator step (see the file comment). Shape checked at load:
// exactly one input (of Input's type when it has one) and one output of
// Out's type.
template <class Input, class Out, class StateClass>
class CpxExpressionOperator_Accumulator_Engine
    : public CpxExpressionOperator_Stateful_Engine<StateClass> {
  using Base = CpxExpressionOperator_Stateful_Engine<StateClass>;
  // Whether the state's value counts can be a column of a shared table
  // (see CpxExpressionOperator_Engine::ShareCounts).
  static constexpr bool kSharesCounts = requires(StateClass& s) {
    requires CpxSharesCounts<std::remove_reference_t<decltype(s.CountedValues())>>;
  };

 public:
  using Base::Base;
  using typename Base::State;

  void InsureValidParameters() const override { this->InsureShape({Input::kKind}, Out::kKind); }
  std::optional<CpxExpressionOperator_Engine::CountsKey> GetCountsKey() const override {
    if constexpr (kSharesCounts) return this->FirstInputCountsKey(static_cast<int>(*Input::kKind));
    return std::nullopt;
  }
  void ShareCounts(CpxExpressionOperatorState_Engine& state,
                   std::unique_ptr<CpxSharedState_Engine>& shared, unsigned column) const override {
    if constexpr (kSharesCounts) {
      State& s = static_cast<State&>(state);
      s.CountedValues().ShareAs(s, shared, column);
    }
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned out_pos = 0, in_pos = 0;
    CpxTuple* out = this->GetOutputTupleField(ev, 0, out_pos);
    const CpxTuple* in = this->GetInputTupleField(ev, 0, in_pos);
    State& state = this->GetState(ev, position);
    if (Input::Present(*in, in_pos)) {
      switch (in->GetTupleType()) {
        case Message::kPositive:
          state.AddValue(ev->GetPersistentBatch(), Input::Read(*in, in_pos));
          break;
        case Message::kNegative:
          state.RemoveValue(ev->GetPersistentBatch(), Input::Read(*in, in_pos));
          break;
        default:
          break;
      }
    }
    if (const auto result = state.Result()) {
      Out::SetValue(*out, out_pos, *result);
    } else {
      out->ClearFieldValue(out_pos);
    }
  }
};

// ---- the kinds ----

// Each kind over an input field class In (its value type follows from In)
// and, where the result type differs, the output field class Out (Avg and
// Median: Float for Integer, Long and Float, else the input's type; the
// deviations: Float, or IntervalD2S for Time and IntervalD2S). For kind K,
// CpxExpressionOperatorState_Engine_Accumulator_K is its state and
// CpxExpressionOperator_Accumulator_K_Engine its operator.

// A kind whose result has the input's type (Out = In) ...
#define VX_ACCUMULATOR_KIND(Kind, ...)                                      \
  template <class In>                                                       \
  using CpxExpressionOperatorState_Engine_Accumulator_##Kind = __VA_ARGS__; \
  template <class In>                                                       \
  using CpxExpressionOperator_Accumulator_##Kind##_Engine =                 \
      CpxExpressionOperator_Accumulator_Engine<                             \
          CpxAccumulatorValue<In>, In, CpxExpressionOperatorState_Engine_Accumulator_##Kind<In>>;
// ... or the output field class Out.
#define VX_ACCUMULATOR_KIND_TO(Kind, ...)                                   \
  template <class In, class Out>                                            \
  using CpxExpressionOperatorState_Engine_Accumulator_##Kind = __VA_ARGS__; \
  template <class In, class Out>                                            \
  using CpxExpressionOperator_Accumulator_##Kind##_Engine =                 \
      CpxExpressionOperator_Accumulator_Engine<                             \
          CpxAccumulatorValue<In>, Out,                                     \
          CpxExpressionOperatorState_Engine_Accumulator_##Kind<In, Out>>;

VX_ACCUMULATOR_KIND(Sum, CpxSumState<In, false>)
VX_ACCUMULATOR_KIND(SumDistinct, CpxSumState<In, true>)
VX_ACCUMULATOR_KIND(Min, CpxExtremeState<In, kCpxMin>)
VX_ACCUMULATOR_KIND(MinDistinct, CpxExtremeState<In, kCpxMinDistinct>)
VX_ACCUMULATOR_KIND(Max, CpxExtremeState<In, kCpxMax>)
VX_ACCUMULATOR_KIND(MaxDistinct, CpxExtremeState<In, kCpxMaxDistinct>)
VX_ACCUMULATOR_KIND(Last, CpxLastState<In>)
VX_ACCUMULATOR_KIND_TO(Avg, CpxAvgState<In, Out, false>)
VX_ACCUMULATOR_KIND_TO(AvgDistinct, CpxAvgState<In, Out, true>)
VX_ACCUMULATOR_KIND_TO(Median, CpxMedianState<In, Out, false>)
VX_ACCUMULATOR_KIND_TO(MedianDistinct, CpxMedianState<In, Out, true>)
VX_ACCUMULATOR_KIND_TO(StandardDeviation, CpxDeviationState<In, Out, kCpxStandardDeviation>)
VX_ACCUMULATOR_KIND_TO(StandardDeviationDistinct,
                       CpxDeviationState<In, Out, kCpxStandardDeviationDistinct>)
VX_ACCUMULATOR_KIND_TO(MeanDeviation, CpxDeviationState<In, Out, kCpxMeanDeviation>)
VX_ACCUMULATOR_KIND_TO(MeanDeviationDistinct, CpxDeviationState<In, Out, kCpxMeanDeviationDistinct>)

#undef VX_ACCUMULATOR_KIND
#undef VX_ACCUMULATOR_KIND_TO

// CountDistinct writes an Integer whatever its input.
template <class In>
using CpxExpressionOperatorState_Engine_Accumulator_CountDistinct = CpxCountDistinctState<In>;
template <class In>
using CpxExpressionOperator_Accumulator_CountDistinct_Engine =
    CpxExpressionOperator_Accumulator_Engine<CpxAccumulatorValue<In>, CpxTupleField_Integer,
                                             CpxCountDistinctState<In>>;

// ---- Threshold ----

// Logs Execute's report of a criteria outside 0 ... 2.
void CpxLogInvalidThresholdCriteria(const std::string& operator_name, int32_t criteria);
// Logs GetResult's report of an out-of-range criteria (the text depends on
// whether a previous value exists).
void CpxLogInvalidThresholdRequest(bool has_previous, int32_t criteria);

// The monitored value of the group's last positive row with usable inputs,
// and whether there is one. Items: 0 previous value, 1 flag.
template <class In>
class CpxExpressionOperatorState_Engine_Threshold final : public CpxAccumulatorState {
  using T = typename In::ValueType;

 public:
  enum Criteria : int32_t { kUp = 0, kDown = 1, kAny = 2 };

  // Whether v has just crossed t in the criteria's direction, p being the
  // previous value: UP v > t (and p <= t), DOWN v < t (and p >= t), ANY
  // either with a previous value and false without. A value equal to the
  // threshold never fires. Another criteria is logged and gives false.
  bool GetResult(T v, T t, int32_t criteria) const {
    const bool up = v > t && (!m_has_previous || m_previous <= t);
    const bool down = v < t && (!m_has_previous || m_previous >= t);
    switch (criteria) {
      case kUp:
        return up;
      case kDown:
        return down;
      case kAny:
        return m_has_previous && (up || down);
      default:
        CpxLogInvalidThresholdRequest(m_has_previous, criteria);
        return false;
    }
  }
  void Remember(Batch* batch, T v) {
    m_previous = v;
    m_has_previous = true;
    SaveItem(batch, 0, m_previous);
    SaveItem(batch, 1, m_has_previous);
  }
  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    RestoreItems(message, block, "Threshold", Item<T>{0, m_previous},
                 Item<bool>{1, m_has_previous});
  }

 private:
  T m_previous{};
  bool m_has_previous = false;
};

// Inputs: 0 criteria (Integer: 0 UP, 1 DOWN, 2 ANY), 1 monitored value,
// 2 threshold (both In); output 0 Boolean. NULL policy: any NULL input, an
// out-of-range criteria (logged) and a negative row give NULL; only a
// positive row with usable inputs moves the remembered value.
template <class In>
class CpxExpressionOperator_Threshold_Engine
    : public CpxExpressionOperator_Stateful_Engine<
          CpxExpressionOperatorState_Engine_Threshold<In>> {
  using Base =
      CpxExpressionOperator_Stateful_Engine<CpxExpressionOperatorState_Engine_Threshold<In>>;

 public:
  using Base::Base;
  using typename Base::State;

  void InsureValidParameters() const override {
    this->InsureShape({CpxFieldKind::Integer, In::kKind, In::kKind}, CpxFieldKind::Boolean);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned out_pos = 0, pos = 0;
    CpxTuple* out = this->GetOutputTupleField(ev, 0, out_pos);
    const CpxTuple* t = this->GetInputTupleField(ev, 0, pos);
    if (!t->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
    const int32_t criteria = CpxTupleField_Integer::GetValue(t, pos);
    if (criteria < State::kUp || criteria > State::kAny) {
      CpxLogInvalidThresholdCriteria(this->GetName(), criteria);
      return out->ClearFieldValue(out_pos);
    }
    const CpxTuple* value_tuple = this->GetInputTupleField(ev, 1, pos);
    if (!value_tuple->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
    const typename In::ValueType value = In::GetValue(value_tuple, pos);
    t = this->GetInputTupleField(ev, 2, pos);
    if (!t->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
    const typename In::ValueType threshold = In::GetValue(t, pos);
    State& state = this->GetState(ev, position);
    const int sign = value_tuple->GetTupleType();
    if (sign == Message::kNegative) return out->ClearFieldValue(out_pos);
    CpxTupleField_Boolean::SetValue(*out, out_pos, state.GetResult(value, threshold, criteria));
    if (sign == Message::kPositive) state.Remember(ev->GetPersistentBatch(), value);
  }
};

}  // namespace vx
