// What a context's parent (the server's query, or the test harness) offers
// to the operators that look beyond the row: named tuple storages (windows
// and tables read by the column-lookup operators), named sequences (NextVal)
// and the authentication token of the user on whose behalf the context runs
// (user name, group membership and preferences).
//
// The parent hands these out through CpxExpressionContextParent_Engine
// (FindTuplesStorage, GetNextvalStorage, GetExpressionAuthenticationToken);
// each may be absent, and the operators then say so (see each operator).
// The abstract classes are what a server implements; the concrete ones here
// are complete implementations that the harness and the embedding interface
// use.
//
// Lifetimes: a storage, sequence storage or token handed out by a parent must
// live as long as the contexts that use it, and a storage name must keep
// naming the same storage object (whose rows may change): operators keep
// pointers to storages between rows.
//
// Threads: several evaluators may call one parent's objects at once from
// different threads. Tuple storages and tokens are only read by the engine;
// an implementation whose content changes while contexts run must make those
// reads safe. Sequence storages are advanced concurrently and must be thread
// safe; CpxNextvalStorage_Sequences is.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "support/storage.h"
#include "support/tuple.h"

namespace vx {

// ---- tuple storages ----

// A named set of rows of one descriptor, in arrival order (a window or a
// table kept by the server).
class CpxTuplesStorage {
 public:
  virtual ~CpxTuplesStorage() = default;
  virtual const CpxTupleDescriptor& GetDescriptor() const = 0;
  virtual unsigned GetSize() const = 0;
  // The row at `pos`, 0 being the oldest; `pos` is below GetSize().
  virtual const CpxTuple& GetTuple(unsigned pos) const = 0;
};

// Rows held in memory.
class CpxTuplesStorage_Vector final : public CpxTuplesStorage {
 public:
  explicit CpxTuplesStorage_Vector(Ptr<const CpxTupleDescriptor> descriptor)
      : m_descriptor(std::move(descriptor)) {}
  const CpxTupleDescriptor& GetDescriptor() const override { return *m_descriptor; }
  unsigned GetSize() const override { return static_cast<unsigned>(m_rows.size()); }
  const CpxTuple& GetTuple(unsigned pos) const override { return *m_rows[pos]; }

  // Appends a row, which must be of this storage's descriptor.
  void Add(Ptr<CpxTuple> row) { m_rows.push_back(std::move(row)); }
  CpxTuple& GetMutableTuple(unsigned pos) { return *m_rows[pos]; }
  void Remove(unsigned pos) { m_rows.erase(m_rows.begin() + pos); }
  void Clear() { m_rows.clear(); }

 private:
  Ptr<const CpxTupleDescriptor> m_descriptor;
  std::vector<Ptr<CpxTuple>> m_rows;
};

// ---- sequences ----

// Named sequences of long values.
class CpxNextvalStorage {
 public:
  virtual ~CpxNextvalStorage() = default;
  // Advances sequence `name` and stores its new value in `value`; false when
  // there is no such sequence. Raises when the sequence is exhausted.
  virtual bool NextVal(std::string_view name, int64_t& value) = 0;
};

// Sequences declared with a start and an increment: the first NextVal gives
// the start, each later one the previous value plus the increment; a value
// beyond the range of a long raises "sequence '{name}' is exhausted".
//
// With a store attached, every advance is written into the store's current
// batch, one record per sequence (its last value), so that it commits with
// the row that drew it; attaching a store reads back every value committed
// there. Thread safe.
class CpxNextvalStorage_Sequences final : public CpxNextvalStorage {
 public:
  // `prefix`: the key under which the records live in an attached store
  // (one block more per sequence, holding its name).
  explicit CpxNextvalStorage_Sequences(CpxPersistentStorageKey prefix = DefaultKey());

  // Declares a sequence; a second declaration of a name replaces the first.
  void Declare(const std::string& name, int64_t start, int64_t increment);
  // Writes changes into `store`'s batch from now on and sets every sequence
  // to its last value committed there (a sequence with no record starts
  // afresh). Null detaches: values are then kept in memory only.
  void AttachStore(CpxPersistentStorageManager* store);

  bool NextVal(std::string_view name, int64_t& value) override;

  struct Sequence {
    int64_t start = 1;
    int64_t increment = 1;
    int64_t last = 0;       // the value NextVal gave last
    bool started = false;  // false until the first NextVal
  };
  // The declared sequences by name (for writing a suite back).
  std::map<std::string, Sequence, std::less<>> GetSequences() const;

  static CpxPersistentStorageKey DefaultKey();

 private:
  mutable std::mutex m_mutex;
  std::map<std::string, Sequence, std::less<>> m_sequences;
  CpxPersistentStorageKey m_prefix;
  CpxPersistentStorageManager* m_store = nullptr;
};

// ---- the current user ----

// The user on whose behalf a context runs: the name, the groups the user
// belongs to and the user's preferences (named texts).
class CpxExpressionAuthenticationToken {
 public:
  virtual ~CpxExpressionAuthenticationToken() = default;
  virtual const std::string& GetUserName() const = 0;
  virtual bool IsMemberOf(std::string_view group) const = 0;
  // The preference's text in `value`; false when the user has none by that name.
  virtual bool FindPreference(std::string_view name, std::string& value) const = 0;
};

// A token held in memory. Group and preference names compare exactly
// (case matters).
class CpxExpressionAuthenticationToken_Simple final : public CpxExpressionAuthenticationToken {
 public:
  CpxExpressionAuthenticationToken_Simple() = default;
  explicit CpxExpressionAuthenticationToken_Simple(std::string user) : m_user(std::move(user)) {}

  const std::string& GetUserName() const override { return m_user; }
  bool IsMemberOf(std::string_view group) const override {
    return m_groups.find(group) != m_groups.end();
  }
  bool FindPreference(std::string_view name, std::string& value) const override;

  void SetUserName(std::string user) { m_user = std::move(user); }
  void AddGroup(std::string group) { m_groups.insert(std::move(group)); }
  void SetPreference(std::string name, std::string value) {
    m_preferences[std::move(name)] = std::move(value);
  }
  const std::set<std::string, std::less<>>& GetGroups() const { return m_groups; }
  const std::map<std::string, std::string, std::less<>>& GetPreferences() const {
    return m_preferences;
  }

 private:
  std::string m_user;
  std::set<std::string, std::less<>> m_groups;
  std::map<std::string, std::string, std::less<>> m_preferences;
};

}  // namespace vx
