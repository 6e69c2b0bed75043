// The expression engine: contexts, operators, field references, evaluators.
//
// A `CpxExpressionContext_Engine` is one loaded expression program; it is
// read from XML, validated, and then immutable and shared read-only by its
// evaluators. A `CpxExpressionEvaluator_Engine` runs the program over input
// rows: it owns the output, constant and temporary tuples of one evaluation
// scope (one group of a grouped context, or the whole stream), the
// next-operator index and the per-operator states. A grouped context keeps
// one evaluator per distinct group-key value.
//
// Threads: one evaluator runs on one thread at a time; a context's evaluator
// map (GetEvaluator, ResetEvaluators, ShutdownEvaluators) is used by one
// thread at a time. Loaded contexts and operators may be shared by threads.
// Nothing here locks.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/memory.h"
#include "support/storage.h"
#include "support/tuple.h"
#include "vx_xml_parser/cpx_expression.h"
#include "vx_xml_parser/cpx_expression_operator_types.h"

namespace vx {

class CpxExpressionAuthenticationToken;
class CpxExpressionContext_Engine;
class CpxExpressionContextParent_Engine;
class CpxNextvalStorage;
class CpxTuplesStorage;
class CpxExpressionEvaluator_Engine;
class CpxExpressionOperator_Engine;
class CpxExpressionOperatorState_Engine;
class CpxTupleFieldRef_Engine;

// The type bundle the templates are instantiated over.
struct CpxExpressionTypes {
  using Context = CpxExpressionContext_Engine;
  using ContextParent = CpxExpressionContextParent_Engine;
  using Operator = CpxExpressionOperator_Engine;
  using FieldRef = CpxTupleFieldRef_Engine;
  using Evaluator = CpxExpressionEvaluator_Engine;

  // Null when no operator is registered under `type`.
  static Ptr<Operator> CreateOperator(const XmlQName& type, const std::string& name,
                                      Context* context);
  static Ptr<FieldRef> CreateFieldRef(CpxTupleSetKind kind, Operator* owner);
};

using CpxTupleKey_Engine = CpxTupleKey<CpxExpressionTypes>;

// ---- field references ----

class CpxTupleFieldRef_Engine : public CpxTupleFieldRef<CpxExpressionTypes> {
 public:
  using CpxTupleFieldRef<CpxExpressionTypes>::CpxTupleFieldRef;
  // The tuple that holds the field in `evaluator`'s tuple set; stores the
  // field's position in `field_pos`. Raises the index-out-of-range error
  // when the set has no tuple at the bound position.
  virtual CpxTuple* GetTupleField(CpxExpressionEvaluator_Engine* evaluator,
                                  unsigned& field_pos) const = 0;
};

// ---- operator state ----

// Run-time state of one operator in one evaluator (row history,
// accumulators, compiled patterns). Created by the operator's CreateState on
// the operator's first execution in that evaluator; survives Reset.
//
// With persistence, a state writes each item it changes to the evaluator's
// batch under its state key (the evaluator key extended by the operator's
// number), one record per item: the item number as a 4-byte block, any
// further key blocks (a sequence number, a counted value), and the item's
// bytes as the record's value. After a restart every record comes back
// through RestoreFromPersistentStorage.
class CpxExpressionOperatorState_Engine : public CpxPersistentStorageDeferredWrite {
 public:
  using PutMessage = CpxPersistentStorageMessage_Put;
  ~CpxExpressionOperatorState_Engine() override = default;

  // A state that defers its writes (see CpxPersistentStorageDeferredWrite)
  // writes them here; the others write at each change and have nothing left.
  void WriteDeferred(CpxPersistentStorageBatch&) override {}
  // Its group was deleted: nothing deferred is written any more.
  void CancelDeferredWrite() { CancelDeferred(); }

  // Builds the state key; called when the state is created in an evaluator
  // that runs with persistence.
  virtual void InitializePersistence(CpxPersistentStorageBatch* batch,
                                     const CpxPersistentStorageKey& evaluator_key,
                                     uint32_t operator_number);
  const CpxPersistentStorageKey& GetPersistentKey() const { return m_key; }
  CpxPersistentStorageBatch* GetPersistentBatch() const { return m_batch; }

  // Puts item `item` with value `bytes`. Nothing happens without a batch.
  void SaveRawBuffer(CpxPersistentStorageBatch* batch, uint32_t item, std::string_view bytes);
  // The same for one of many items of a kind, told apart by `sub`.
  void SaveKeyedRawBuffer(CpxPersistentStorageBatch* batch, uint32_t item, uint64_t sub,
                          std::string_view bytes);
  void EraseKeyedRawBuffer(CpxPersistentStorageBatch* batch, uint32_t item, uint64_t sub);
  // Deletes item `item`'s own record; EraseAllOfItem also every record of
  // the item's kind (its keyed records).
  void EraseRawBuffer(CpxPersistentStorageBatch* batch, uint32_t item);
  void EraseAllOfItem(CpxPersistentStorageBatch* batch, uint32_t item);
  // Counted values (distinct strings and blobs): one record per value.
  void SaveCountStringValue(CpxPersistentStorageBatch* batch, uint32_t item, std::string_view text,
                            uint32_t count);
  void EraseCountStringValue(CpxPersistentStorageBatch* batch, uint32_t item,
                             std::string_view text);
  void SaveCountBlobValue(CpxPersistentStorageBatch* batch, uint32_t item, std::string_view bytes,
                          uint32_t count) {
    SaveCountStringValue(batch, item, bytes, count);
  }
  void EraseCountBlobValue(CpxPersistentStorageBatch* batch, uint32_t item, std::string_view bytes) {
    EraseCountStringValue(batch, item, bytes);
  }

  // The item number in block `block` of a stored record. Raises "The block
  // {BlockNum} is not found ..." or "... has incorrect size ...".
  static uint32_t GetValueType(const PutMessage& message, unsigned block);
  // The value of a record whose item block is `block` and holds `item`.
  static bool LoadRawBuffer(const PutMessage& message, unsigned block, uint32_t item,
                            std::string_view& bytes);
  // The sub key of a keyed record (the block after the item block).
  static uint64_t LoadSubKey(const PutMessage& message, unsigned block);
  static void LoadCountStringValue(const PutMessage& message, unsigned block, uint32_t item,
                                   std::string& text, uint32_t& count);
  static void LoadCountBlobValue(const PutMessage& message, unsigned block, uint32_t item,
                                 std::string& bytes, uint32_t& count) {
    LoadCountStringValue(message, block, item, bytes, count);
  }

  // Assigns the item of one stored record; `block` is the number of its item
  // block. The base knows no item and raises
  // VX_SERVER_EXPRESSION_PERSISTENCE_WRONG_RESTORED_VALUE_TYPE.
  virtual void RestoreFromPersistentStorage(const PutMessage& message, unsigned block);
  // Called once every record has been restored.
  virtual void RestoreFinalize() {}

 protected:
  [[noreturn]] void RaiseUnknownItem(uint32_t item, const char* type_name) const;

 private:
  CpxPersistentStorageKey& RecordKey(uint32_t item);
  CpxPersistentStorageBatch* m_batch = nullptr;
  CpxPersistentStorageKey m_key;
  CpxPersistentStorageKey m_record;  // reused to build record keys
  uint32_t m_operator_number = 0;
};

// State that operators of one evaluator share (a count table that several
// accumulators over the same input keep in one, see ShareCounts). The
// evaluator owns it and drops it with its states; the states that use it
// hold plain pointers to it.
class CpxSharedState_Engine {
 public:
  virtual ~CpxSharedState_Engine() = default;
  static void* operator new(size_t size);
  static void operator delete(void* p);
};

// ---- operators ----

class CpxExpressionOperator_Engine : public CpxExpressionOperator<CpxExpressionTypes> {
 public:
  using CpxExpressionOperator<CpxExpressionTypes>::CpxExpressionOperator;

  // The operator's work for one row. `position` is the operator's own
  // position in the context; a jump stores a new next-operator index in the
  // evaluator. Exceptions propagate out of the evaluator's Execute.
  virtual void Execute(CpxExpressionEvaluator_Engine* evaluator, unsigned position) const = 0;
  // A fresh state for stateful operators; null for the others.
  virtual Ptr<CpxExpressionOperatorState_Engine> CreateState() const { return nullptr; }

  // Accumulators whose state counts fixed-size values in a hash table may
  // keep their counts in a table shared with the other such accumulators of
  // the same input in the group: the context groups them when it takes its
  // operators (CountsKey says whether this one can, and for which input and
  // value type), and the evaluator gives each new state its column of the
  // group's shared table (ShareCounts, before the state takes any value).
  // Each accumulator keeps counts of its own there, so its results are
  // those of a table of its own whatever rows reach it.
  static constexpr unsigned kCountsShareColumns = 4;  // sharers of one table at most
  struct CountsKey {
    CpxTupleSetKind kind;
    uint16_t tuple_pos;
    uint32_t field_pos;
    int value_kind;
    bool operator==(const CountsKey&) const = default;
  };
  virtual std::optional<CountsKey> GetCountsKey() const { return std::nullopt; }
  virtual void ShareCounts(CpxExpressionOperatorState_Engine&,
                           std::unique_ptr<CpxSharedState_Engine>&, unsigned) const {}

  // True when every field of `list` holds a value in `evaluator`'s tuples.
  static bool CheckAllFieldsAvailable(CpxExpressionEvaluator_Engine* evaluator,
                                      const ParamList& list);

  // Runs the parameter checks, then keeps the bound positions of the first
  // parameters in the operator itself (see BoundParam).
  void EnsureValid() override;

 protected:
  void ParametersChanged() override { m_inline_inputs = m_inline_outputs = 0; }
  // Raises VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS or
  // ..._OUTPUT_PARAMETERS unless the counts are exact (-1 skips a check).
  void InsureParameterCounts(int inputs, int outputs) const;
  // Raises the FIRST/SECOND/THIRD/FOURTH/NTH_INPUT_WRONG_TYPE definition
  // unless input i has type `kind`.
  void InsureInputType(unsigned i, CpxFieldKind kind) const;
  // Raises VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE unless output i has `kind`.
  void InsureOutputType(unsigned i, CpxFieldKind kind) const;

  // The tuple holding the i-th input (output) parameter's field, and the
  // field's position in it, during the evaluator's Execute: the reference's
  // bound positions index the evaluator's tuple tables, with no virtual call
  // and no name lookup. Raises the index-out-of-range error past the list.
  VX_ALWAYS_INLINE CpxTuple* GetInputTupleField(CpxExpressionEvaluator_Engine* evaluator,
                                                unsigned i, unsigned& field_pos) const;
  VX_ALWAYS_INLINE CpxTuple* GetOutputTupleField(CpxExpressionEvaluator_Engine* evaluator,
                                                 unsigned i, unsigned& field_pos) const;
  // The first input's bound reference as a counts key for values of
  // `value_kind`, once the operator is valid.
  std::optional<CountsKey> FirstInputCountsKey(int value_kind) const {
    if (m_inline_inputs == 0) return std::nullopt;
    const BoundParam& b = m_bound_inputs[0];
    return CountsKey{b.kind, b.tuple_pos, b.field_pos, value_kind};
  }

 private:
  // A parameter's bound positions, copied out of its reference once the
  // operator is valid: the per-row path reads them from the operator itself
  // rather than following the parameter list to a reference object, which
  // saves two dependent loads per parameter. Parameters past the inline
  // room, or with positions too large for it, go through their references.
  struct BoundParam {
    uint32_t field_pos;
    uint16_t tuple_pos;
    CpxTupleSetKind kind;
  };
  static constexpr unsigned kInlineInputs = 4, kInlineOutputs = 2;
  static unsigned CopyBoundParams(const ParamList& list, BoundParam* to, unsigned room);
  [[noreturn, gnu::cold, gnu::noinline]] void RaiseParameterOutOfRange(unsigned i,
                                                                       size_t size) const;
  VX_ALWAYS_INLINE static CpxTuple* ParamTupleField(CpxExpressionEvaluator_Engine* evaluator,
                                                    const BoundParam* bound, unsigned inline_count,
                                                    const ParamList& list, unsigned i,
                                                    unsigned& field_pos, const CpxExpressionOperator_Engine* op);

  BoundParam m_bound_inputs[kInlineInputs] = {};
  BoundParam m_bound_outputs[kInlineOutputs] = {};
  uint8_t m_inline_inputs = 0;
  uint8_t m_inline_outputs = 0;
};

// ---- XML shredding ----

// Where a caller that walks ("shreds") an XML document row by row stands:
// the document's root node and the node of the current row. The XML
// operators that take an XPath alone (XmlExists, XmlExtract,
// XmlExtractValue) evaluate it from `xml_node`. The caller owns the nodes
// and the document and keeps them alive while the evaluator runs.
struct CpxXmlShredderContext {
  xmlNodePtr root_node = nullptr;
  xmlNodePtr xml_node = nullptr;
};

// ---- evaluator ----

class CpxExpressionEvaluator_Engine : public CpxPersistentStorageDeferredWrite {
 public:
  explicit CpxExpressionEvaluator_Engine(const CpxExpressionContext_Engine* context);
  // An evaluator is run by one thread at a time and the context's map is
  // used from one thread at a time, so its count needs no locked
  // instruction: GetEvaluator hands out a Ptr for every row.
  void AddRef() const { AddRefOwnedByOneThread(); }
  void Release() const { ReleaseOwnedByOneThread(); }
  CpxExpressionEvaluator_Engine(const CpxExpressionEvaluator_Engine&) = default;
  CpxExpressionEvaluator_Engine& operator=(const CpxExpressionEvaluator_Engine&) = default;

  // Builds the constant, temporary and output tuples (one default tuple per
  // descriptor) and the operator-state slots; leaves the evaluator clean.
  void Prepare();
  // Runs the operators from the next-operator index until the index is not
  // below the operator count. `input` is viewed only during the call.
  void Execute(const int64_t& now, PtrView<const CpxTuplesList> input);
  // When dirty: clears the temporary tuples, resets the output tuples to
  // their defaults (replacing any that a caller still holds), sets the
  // next-operator index to 0 and clears dirty. A clean evaluator is left as is.
  void Reset();
  // +1 for a positive tuple, -1 for a negative one; returns the new count.
  // With persistence the group record (count and group key values) is put
  // when the batch is written (see WriteDeferred).
  void WriteDeferred(CpxPersistentStorageBatch& batch) override;
  uint32_t ChangeTuplesCount(const CpxTuple& tuple);

  // Persistence: the batch this evaluator writes to and its key (the
  // context key, a grouped flag and, for a group, its identity).
  void SetPersistentKey(CpxPersistentStorageBatch* batch, const CpxPersistentStorageKey& key);
  const CpxPersistentStorageKey& GetPersistentKey() const { return m_key; }
  // One delete-all record for every record of this evaluator.
  void RemoveAllFromPersistentStorage();
  // Hands a stored record to the state of the operator whose number is in
  // block `block`.
  void RestoreFromPersistentStorage(const CpxPersistentStorageMessage_Put& message, unsigned block);
  // Every record has been handed over: each state finishes its restore.
  void RestoreFinalize();
  // The row whose key fields name this evaluator's group (a copy).
  const Ptr<CpxTuple>& GetGroupTuple() const { return m_group_tuple; }
  void SetGroupTuple(Ptr<CpxTuple> tuple) { m_group_tuple = std::move(tuple); }
  // The group's key in the form the context's evaluator map compares.
  std::string_view GetGroupKeyBytes() const { return m_group_key_bytes; }
  void SetGroupKeyBytes(std::string_view bytes) { m_group_key_bytes.assign(bytes); }
  void SetTuplesCount(uint32_t count) { m_tuples_count = count; }

  const CpxExpressionContext_Engine* GetContext() const { return m_context; }
  const CpxTupleKey_Engine* GetGroupByKey() const { return m_group_by_key; }
  void SetGroupByKey(const CpxTupleKey_Engine* key) { m_group_by_key = key; }
  CpxPersistentStorageBatch* GetPersistentBatch() const { return m_batch; }

  const CpxTuplesList* GetInputTuples() const { return m_input; }
  CpxTuplesList_Vector* GetConstantTuples() const { return m_constant.Get(); }
  CpxTuplesList_Vector* GetTemporaryTuples() const { return m_temporary.Get(); }
  CpxTuplesList_Vector* GetOutputTuples() const { return m_output.Get(); }
  // The context's variable tuples, shared by all evaluators of the context.
  CpxTuplesList_Vector* GetVariableTuples() const;

  // The state of the operator at `position`, created through its
  // CreateState on first use (null for stateless operators).
  CpxExpressionOperatorState_Engine* GetOperatorState(unsigned position) {
    if (position < m_states.size() && m_states[position]) [[likely]]
      return m_states[position].Get();
    return CreateOperatorState(position);
  }

  // The tuple at position `pos` of tuple set `kind` while Execute runs (the
  // operators' path to their parameters). Raises the index-out-of-range
  // error of the set's list past its end.
  VX_ALWAYS_INLINE CpxTuple* GetTupleAt(CpxTupleSetKind kind, unsigned pos) const {
    const TupleTable& table = m_tables[static_cast<unsigned>(kind)];
    if (pos >= table.size) [[unlikely]] return GetTupleAtSlow(kind, pos);
    return table.tuples[pos];
  }

  int64_t GetNow() const { return m_now; }
  uint32_t GetNextOperator() const { return m_next_operator; }
  void SetNextOperator(uint32_t next) { m_next_operator = next; }
  uint32_t GetMaxOperator() const;
  bool IsDirty() const { return m_dirty; }
  void SetDirty(bool dirty) { m_dirty = dirty; }
  bool IsCleanupOnExit() const { return m_cleanup_on_exit; }
  void SetCleanupOnExit(bool cleanup) { m_cleanup_on_exit = cleanup; }
  uint32_t GetTuplesCount() const { return m_tuples_count; }
  const std::vector<void*>& GetOperatorContext() const { return m_operator_context; }
  void SetOperatorContext(const std::vector<void*>& context) { m_operator_context = context; }
  // The shredding position for this evaluator's runs (not owned; null when
  // the evaluator is not shredding, which is the default).
  const CpxXmlShredderContext* GetShredderContext() const { return m_shredder; }
  void SetShredderContext(const CpxXmlShredderContext* context) { m_shredder = context; }

 protected:
  void PrepareTuples(Ptr<CpxTuplesList_Vector>& list, CpxTupleSetKind kind);

 private:
  [[noreturn]] void RaiseStepLimit(uint64_t limit, uint32_t position);
  // One tuple set as an array, refreshed when Execute starts.
  struct TupleTable {
    CpxTuple* const* tuples = nullptr;
    unsigned size = 0;
  };
  void BindOwnTupleTables();
  void BindTupleTables();
  [[gnu::cold, gnu::noinline]] CpxTuple* GetTupleAtSlow(CpxTupleSetKind kind, unsigned pos) const;
  CpxExpressionOperatorState_Engine* CreateOperatorState(unsigned position);

  const CpxExpressionContext_Engine* m_context;
  VxMemoryString m_group_key_bytes;  // read on every lookup: beside the other hot members
  const CpxTupleKey_Engine* m_group_by_key = nullptr;
  CpxPersistentStorageBatch* m_batch = nullptr;
  CpxPersistentStorageKey m_key;
  Ptr<CpxTuple> m_group_tuple;
  std::string m_record;  // reused for the group record's value
  const CpxTuplesList* m_input = nullptr;
  Ptr<CpxTuplesList_Vector> m_constant;
  Ptr<CpxTuplesList_Vector> m_temporary;
  Ptr<CpxTuplesList_Vector> m_output;
  VxMemoryVector<Ptr<CpxExpressionOperatorState_Engine>> m_states;
  VxMemoryVector<CpxExpressionOperatorState_Engine*> m_live_states;  // the non-null m_states
  // The tables that states share (see CpxExpressionOperator_Engine::ShareCounts),
  // by the context's share group; declared after the states, so destroyed
  // before them (states only point into them and never look in when they go).
  VxMemoryVector<std::unique_ptr<CpxSharedState_Engine>> m_shared;
  uint64_t m_shares_version = 0;  // the context's share groups m_shared follows
  TupleTable m_tables[kTupleSetKindCount];
  VxMemoryVector<CpxTuple*> m_gathered_input;  // an input list without a tuple array
  int64_t m_now = 0;
  uint32_t m_next_operator = 0;
  bool m_dirty = false;
  bool m_cleanup_on_exit = false;
  uint32_t m_tuples_count = 0;
  uint32_t m_stored_count = 0;  // the count of the group record last written
  bool m_count_stored = false;  // ... once one has been
  std::vector<void*> m_operator_context;
  const CpxXmlShredderContext* m_shredder = nullptr;
};

// ---- context parent ----

// The query-level owner of a context: supplies the group-by key, finds
// descriptors by name, and offers what the operators that look beyond the
// row read (see cpx_context_services.h); a parent that keeps none of these
// leaves the defaults, which offer nothing.
class CpxExpressionContextParent_Engine {
 public:
  virtual ~CpxExpressionContextParent_Engine() = default;
  // The group-by key of the context, or null when it is not grouped.
  virtual Ptr<CpxTupleKey_Engine> GetContextGroupByKey() const = 0;
  // A descriptor known to the parent by name, or null.
  virtual const CpxTupleDescriptor* FindTupleDescriptor(const std::string& name) const = 0;
  // The named sequences NextVal draws from, or null.
  virtual CpxNextvalStorage* GetNextvalStorage() const { return nullptr; }
  // The tuple storage (a named window or table) called `name`, or null.
  virtual const CpxTuplesStorage* FindTuplesStorage(std::string_view name) const {
    return nullptr;
  }
  // The user on whose behalf the context runs, or null when there is none.
  virtual const CpxExpressionAuthenticationToken* GetExpressionAuthenticationToken() const {
    return nullptr;
  }
};

// ---- context ----

class CpxExpressionContext_Engine : public CpxExpressionContext<CpxExpressionTypes> {
 public:
  CpxExpressionContext_Engine(std::string name, CpxExpressionContextParent_Engine* parent);
  ~CpxExpressionContext_Engine() override;

  // Reads and validates a context from a document (file or text). Load
  // errors carry the document's name and line.
  static Ptr<CpxExpressionContext_Engine> LoadFromFile(const std::string& path,
                                                       CpxExpressionContextParent_Engine* parent,
                                                       std::string name = "");
  static Ptr<CpxExpressionContext_Engine> LoadFromString(std::string text,
                                                         const std::string& document_name,
                                                         CpxExpressionContextParent_Engine* parent,
                                                         std::string name = "");
  // The context as an XML document, in the form it is read.
  std::string WriteToString() const;

  // The group-by key (from the parent, bound to the first input descriptor),
  // or null when the context is not grouped.
  Ptr<const CpxTupleKey_Engine> GetGroupByKey() const { return m_group_by_key; }
  unsigned GetGroupBySize() const { return m_group_by_key ? m_group_by_key->GetFieldCount() : 0; }

  // Sets up the variable tuples and the evaluator map before the first row.
  void InitializeEvaluators(PtrView<const CpxTuplesList> input_tuples = nullptr);
  // The same, with persistence: every evaluator writes its changes to
  // `batch` under keys that extend `key`.
  void InitializeEvaluators(PtrView<const CpxTuplesList> input_tuples,
                            CpxPersistentStorageBatch* batch, const CpxPersistentStorageKey& key,
                            CpxPersistentStorageMessageCache* cache,
                            CpxPersistentStorageManager* manager);
  CpxPersistentStorageBatch* GetPersistentBatch() const { return m_batch; }
  const CpxPersistentStorageKey& GetPersistentKey() const { return m_key; }
  CpxPersistentStorageMessageCache* GetPersistentCache() const { return m_cache; }
  CpxPersistentStorageManager* GetPersistentManager() const { return m_manager; }

  // Rebuilds evaluators and operator states from one stored record (a record
  // under this context's key). Raises when the record does not fit.
  void RestoreFromPersistentStorage(const CpxPersistentStorageMessage_Put& message);
  // Reads every record of this context from the manager and finishes the
  // restore (groups enter the evaluator map).
  void RestoreMessages();
  // Ends a restore made record by record: every state finishes its restore
  // (a value table stored as a reference to another is filled from it) and
  // the groups enter the evaluator map. A restore must end with it.
  void RestoreMessagesFinalize();
  // The evaluator for `tuple`'s group (created on first use); counts the row
  // in a grouped context and drops a group whose count reaches zero from the
  // map (the evaluator is still returned, with cleanup-on-exit set).
  Ptr<CpxExpressionEvaluator_Engine> GetEvaluator(const CpxTuple& tuple);
  void ResetEvaluators();
  void ShutdownEvaluators();
  // Number of live groups of a grouped context.
  unsigned GetGroupCount() const { return m_group_count; }
  // The operators as a plain array, for the evaluators' per-row loop; taken
  // again when operators were added since it was last taken.
  const std::vector<const CpxExpressionOperator_Engine*>& GetOperatorArray() const {
    if (m_operator_array.size() != GetOperatorCount()) [[unlikely]] TakeOperatorArray();
    return m_operator_array;
  }

  CpxTuplesList_Vector* GetVariableTuples() const { return m_variables.Get(); }

  // Where the state of the operator at a position keeps its counts: column
  // `column` of the evaluator's shared table `group`, or (group < 0) a table
  // of its own. Settled when the operator array is taken: the operators
  // that can share (GetCountsKey) are grouped by input and value type in
  // operator order, up to a table's columns to a group, and an operator
  // alone with its input keeps its own table.
  struct CountsShare {
    int32_t group = -1;
    uint32_t column = 0;
  };
  CountsShare GetCountsShare(unsigned position) const {
    GetOperatorArray();
    return position < m_counts_shares.size() ? m_counts_shares[position] : CountsShare{};
  }
  unsigned GetCountsShareGroups() const {
    GetOperatorArray();
    return m_counts_share_groups;
  }
  // Changes whenever the groups are settled again (operators were added):
  // an evaluator prepared before then gives its new states tables of their
  // own, since its shared tables follow the earlier groups.
  uint64_t GetCountsSharesVersion() const {
    GetOperatorArray();
    return m_counts_shares_taken;
  }

 private:
  struct EvaluatorMap;
  Ptr<CpxExpressionEvaluator_Engine> NewEvaluator() const;

  Ptr<CpxExpressionEvaluator_Engine> NewGroupEvaluator(uint64_t group_id) const;
  void InsertGroup(const Ptr<CpxExpressionEvaluator_Engine>& evaluator);
  Ptr<CpxExpressionEvaluator_Engine> RestoredEvaluator(const CpxPersistentStorageMessage_Put& m,
                                                       unsigned& block);

  Ptr<const CpxTupleKey_Engine> m_group_by_key;
  Ptr<CpxTuplesList_Vector> m_variables;
  CpxPersistentStorageBatch* m_batch = nullptr;
  CpxPersistentStorageKey m_key;
  CpxPersistentStorageMessageCache* m_cache = nullptr;
  CpxPersistentStorageManager* m_manager = nullptr;
  uint64_t m_next_group_id = 1;
  std::map<uint64_t, Ptr<CpxExpressionEvaluator_Engine>> m_restoring;
  Ptr<CpxExpressionEvaluator_Engine> m_single;
  std::unique_ptr<EvaluatorMap> m_map;
  unsigned m_group_count = 0;
  void TakeOperatorArray() const;
  mutable std::vector<const CpxExpressionOperator_Engine*> m_operator_array;
  mutable std::vector<CountsShare> m_counts_shares;  // by operator position
  mutable unsigned m_counts_share_groups = 0;
  mutable uint64_t m_counts_shares_taken = 0;  // how many times they were settled
  bool m_initialized = false;
};

// ---- field reference kinds ----

template <CpxTupleSetKind K>
class CpxTupleFieldRefKind_Engine final : public CpxTupleFieldRef_Engine {
 public:
  explicit CpxTupleFieldRefKind_Engine(CpxExpressionOperator_Engine* owner)
      : CpxTupleFieldRef_Engine(owner, K) {}
  CpxTuple* GetTupleField(CpxExpressionEvaluator_Engine* ev, unsigned& field_pos) const override {
    field_pos = GetFieldPos();
    if constexpr (K == CpxTupleSetKind::Input) {
      const CpxTuplesList* in = ev->GetInputTuples();
      if (!in) XmlObject::RaiseIndexOutOfRange(GetTuplePos(), 0, "input tuples");
      return in->GetObjectByPos(GetTuplePos());
    } else if constexpr (K == CpxTupleSetKind::Output) {
      return ev->GetOutputTuples()->GetObjectByPos(GetTuplePos());
    } else if constexpr (K == CpxTupleSetKind::Constant) {
      return ev->GetConstantTuples()->GetObjectByPos(GetTuplePos());
    } else if constexpr (K == CpxTupleSetKind::Temporary) {
      return ev->GetTemporaryTuples()->GetObjectByPos(GetTuplePos());
    } else {
      return ev->GetVariableTuples()->GetObjectByPos(GetTuplePos());
    }
  }
};
using CpxInputTupleFieldRef_Engine = CpxTupleFieldRefKind_Engine<CpxTupleSetKind::Input>;
using CpxOutputTupleFieldRef_Engine = CpxTupleFieldRefKind_Engine<CpxTupleSetKind::Output>;
using CpxConstantTupleFieldRef_Engine = CpxTupleFieldRefKind_Engine<CpxTupleSetKind::Constant>;
using CpxTemporaryTupleFieldRef_Engine = CpxTupleFieldRefKind_Engine<CpxTupleSetKind::Temporary>;
using CpxVariableTupleFieldRef_Engine = CpxTupleFieldRefKind_Engine<CpxTupleSetKind::Variable>;

inline CpxTuplesList_Vector* CpxExpressionEvaluator_Engine::GetVariableTuples() const {
  return m_context->GetVariableTuples();
}

VX_ALWAYS_INLINE CpxTuple* CpxExpressionOperator_Engine::ParamTupleField(
    CpxExpressionEvaluator_Engine* evaluator, const BoundParam* bound, unsigned inline_count,
    const ParamList& list, unsigned i, unsigned& field_pos,
    const CpxExpressionOperator_Engine* op) {
  if (i < inline_count) [[likely]] {
    const BoundParam& b = bound[i];
    field_pos = b.field_pos;
    return evaluator->GetTupleAt(b.kind, b.tuple_pos);
  }
  if (i >= list.size()) [[unlikely]] op->RaiseParameterOutOfRange(i, list.size());
  const CpxTupleFieldRef_Engine& ref = *list[i];
  field_pos = ref.GetFieldPos();
  return evaluator->GetTupleAt(ref.GetKind(), ref.GetTuplePos());
}

VX_ALWAYS_INLINE CpxTuple* CpxExpressionOperator_Engine::GetInputTupleField(
    CpxExpressionEvaluator_Engine* evaluator, unsigned i, unsigned& field_pos) const {
  return ParamTupleField(evaluator, m_bound_inputs, m_inline_inputs, GetInputParameters(), i,
                         field_pos, this);
}

VX_ALWAYS_INLINE CpxTuple* CpxExpressionOperator_Engine::GetOutputTupleField(
    CpxExpressionEvaluator_Engine* evaluator, unsigned i, unsigned& field_pos) const {
  return ParamTupleField(evaluator, m_bound_outputs, m_inline_outputs, GetOutputParameters(), i,
                         field_pos, this);
}

// ---- key functors over tuples ----

struct Hash_Tuple_WithKey {
  using is_transparent = void;
  const CpxTupleKey_Engine* key;
  size_t operator()(const CpxTuple& t) const { return CpxTupleKey_Engine::GetHash(t, *key); }
  size_t operator()(const Ptr<CpxTuple>& t) const { return (*this)(*t); }
};
struct Equal_Tuple_WithKey {
  using is_transparent = void;
  const CpxTupleKey_Engine* key;
  bool operator()(const CpxTuple& a, const CpxTuple& b) const {
    return CpxTupleKey_Engine::CompareByKey(a, *key, b, *key, CpxTuple::kNullsFirst) == 0;
  }
  bool operator()(const Ptr<CpxTuple>& a, const Ptr<CpxTuple>& b) const { return (*this)(*a, *b); }
  bool operator()(const CpxTuple& a, const Ptr<CpxTuple>& b) const { return (*this)(a, *b); }
  bool operator()(const Ptr<CpxTuple>& a, const CpxTuple& b) const { return (*this)(*a, b); }
};
// A tuple held in a state container, with the sequence number that orders
// rows of equal key by arrival.
struct CpxStoredTuple {
  Ptr<CpxTuple> tuple;
  uint64_t sequence = 0;
};

struct Hash_CpxStoredTuple_WithKey {
  const CpxTupleKey_Engine* key;
  size_t operator()(const CpxStoredTuple& t) const {
    return CpxTupleKey_Engine::GetHash(*t.tuple, *key);
  }
};
// Key order of stored tuples by their values (equal keys are equivalent).
struct Less_CpxStoredTuple_ByValue_WithKey {
  const CpxTupleKey_Engine* key;
  bool operator()(const CpxStoredTuple& a, const CpxStoredTuple& b) const {
    return CpxTupleKey_Engine::CompareByKey(*a.tuple, *key, *b.tuple, *key,
                                            CpxTuple::kNullsFirst) < 0;
  }
};

struct Less_Tuple_WithKey {
  const CpxTupleKey_Engine* key;
  bool operator()(const Ptr<CpxTuple>& a, const Ptr<CpxTuple>& b) const {
    return CpxTupleKey_Engine::CompareByKey(*a, *key, *b, *key, CpxTuple::kNullsFirst) < 0;
  }
};
struct LessReverse_Tuple_WithKey {
  const CpxTupleKey_Engine* key;
  bool operator()(const Ptr<CpxTuple>& a, const Ptr<CpxTuple>& b) const {
    return CpxTupleKey_Engine::CompareReverseByKey(*a, *key, *b, *key, CpxTuple::kNullsFirst) < 0;
  }
};

// A hashed multiset of tuples by key that also counts its members.
class CpxTuple_HashSetWithSize_Engine {
 public:
  explicit CpxTuple_HashSetWithSize_Engine(const CpxTupleKey_Engine* key)
      : m_set(16, Hash_Tuple_WithKey{key}, Equal_Tuple_WithKey{key}) {}
  void Insert(Ptr<CpxTuple> tuple) {
    m_set.insert(std::move(tuple));
    ++m_size;
  }
  // Removes one member equal to `tuple` by key; false when there is none.
  bool EraseOne(const CpxTuple& tuple) {
    auto it = m_set.find(tuple);
    if (it == m_set.end()) return false;
    m_set.erase(it);
    --m_size;
    return true;
  }
  size_t Count(const CpxTuple& tuple) const { return m_set.count(tuple); }
  uint32_t GetSize() const { return m_size; }

 private:
  VxMemoryHashMultiSet<Ptr<CpxTuple>, Hash_Tuple_WithKey, Equal_Tuple_WithKey> m_set;
  uint32_t m_size = 0;
};

extern template class CpxTupleFieldRef<CpxExpressionTypes>;
extern template class CpxExpressionOperator<CpxExpressionTypes>;
extern template class CpxTupleKey<CpxExpressionTypes>;
extern template class CpxExpressionContext<CpxExpressionTypes>;

}  // namespace vx
