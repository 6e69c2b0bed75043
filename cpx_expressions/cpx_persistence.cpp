// Persistence of operator state: saving state items as records of the
// persistent store and rebuilding evaluators and states from them.
//
// Record keys (every block as stored by the storage library):
//   context key blocks (given by the caller)
//   grouped flag        1 byte: 1 for a group's evaluator, 0 for the single one
//   group identity      8 bytes, grouped contexts only (numbered at creation)
//   operator number     4 bytes (absent in a group record)
//   item number         4 bytes
//   item key blocks     as the state defines (a sequence number, a value)
// The group record's value is the group's live-row count (4 bytes) followed by
// the serialised values of the group's first row, from which the group's key
// is rebuilt; a group's count therefore comes back exactly as last committed.
#include <cstring>

#include "cpx_expressions/cpx_expression_engine.h"

namespace vx {

namespace {

LogMessageDefinition msg_block_not_found() {
  return {"PERSISTENCE_BLOCK_NOT_FOUND",
          "The block {BlockNum} is not found in persistent storage key", LogLevel::Error};
}
LogMessageDefinition msg_block_size() {
  return {"PERSISTENCE_BLOCK_SIZE",
          "The block {BlockNum} has incorrect size in persistent storage key", LogLevel::Error};
}
LogMessageDefinition msg_block_string() {
  return {"PERSISTENCE_BLOCK_STRING",
          "The block {BlockNum} has incorrect string in persistent storage key", LogLevel::Error};
}

// Reads key block `block` of a record; the record's last block is its value,
// not part of its key.
template <class T>
T ReadBlock(const CpxPersistentStorageMessage_Put& message, unsigned block) {
  std::string_view b;
  if (block + 1 >= message.GetKey().GetValuesNumber() || !message.GetKey().FindBlock(block, b))
    VX_RAISE(msg_block_not_found, "persistent storage key", {"BlockNum", block});
  if (b.size() != sizeof(T)) VX_RAISE(msg_block_size, "persistent storage key", {"BlockNum", block});
  T value;
  std::memcpy(&value, b.data(), sizeof value);
  return value;
}

// Blocks of a record after its item block, its value excluded.
unsigned KeyBlocksAfter(const CpxPersistentStorageMessage_Put& message, unsigned block) {
  const unsigned n = message.GetKey().GetValuesNumber();
  return n > block + 2 ? n - block - 2 : 0;
}

}  // namespace

// ---- operator state ----

void CpxExpressionOperatorState_Engine::InitializePersistence(
    CpxPersistentStorageBatch* batch, const CpxPersistentStorageKey& evaluator_key,
    uint32_t operator_number) {
  m_batch = batch;
  m_key = evaluator_key;
  m_key.AppendTypedValue(operator_number);
  m_operator_number = operator_number;
  m_record = m_key;
}

// The record key of item `item`: the state key and the item block. The
// record buffer keeps the state key's blocks from one save to the next, so
// only the item block (and any block after it) is written again.
CpxPersistentStorageKey& CpxExpressionOperatorState_Engine::RecordKey(uint32_t item) {
  const unsigned blocks = m_key.GetValuesNumber();
  if (m_record.GetValuesNumber() < blocks) m_record = m_key;
  m_record.Truncate(blocks);
  uint32_t* block = reinterpret_cast<uint32_t*>(m_record.AppendBlock(4));
  std::memcpy(block, &item, 4);
  return m_record;
}

void CpxExpressionOperatorState_Engine::SaveRawBuffer(CpxPersistentStorageBatch* batch,
                                                      uint32_t item, std::string_view bytes) {
  if (!batch) return;
  batch->Put(RecordKey(item), bytes);
}

void CpxExpressionOperatorState_Engine::SaveKeyedRawBuffer(CpxPersistentStorageBatch* batch,
                                                           uint32_t item, uint64_t sub,
                                                           std::string_view bytes) {
  if (!batch) return;
  CpxPersistentStorageKey& key = RecordKey(item);
  key.AppendTypedValue(sub);
  batch->Put(key, bytes);
}

void CpxExpressionOperatorState_Engine::EraseRawBuffer(CpxPersistentStorageBatch* batch,
                                                       uint32_t item) {
  if (batch) batch->Delete(RecordKey(item));
}

void CpxExpressionOperatorState_Engine::EraseAllOfItem(CpxPersistentStorageBatch* batch,
                                                       uint32_t item) {
  if (batch) batch->DeleteAll(RecordKey(item));
}

void CpxExpressionOperatorState_Engine::EraseKeyedRawBuffer(CpxPersistentStorageBatch* batch,
                                                            uint32_t item, uint64_t sub) {
  if (!batch) return;
  CpxPersistentStorageKey& key = RecordKey(item);
  key.AppendTypedValue(sub);
  batch->Delete(key);
}

void CpxExpressionOperatorState_Engine::SaveCountStringValue(CpxPersistentStorageBatch* batch,
                                                             uint32_t item, std::string_view text,
                                                             uint32_t count) {
  if (!batch) return;
  CpxPersistentStorageKey& key = RecordKey(item);
  key.AppendBlock(static_cast<uint32_t>(text.size()), text.data());
  batch->Put(key, std::string_view(reinterpret_cast<const char*>(&count), 4));
}

void CpxExpressionOperatorState_Engine::EraseCountStringValue(CpxPersistentStorageBatch* batch,
                                                              uint32_t item,
                                                              std::string_view text) {
  if (!batch) return;
  CpxPersistentStorageKey& key = RecordKey(item);
  key.AppendBlock(static_cast<uint32_t>(text.size()), text.data());
  batch->Delete(key);
}

uint32_t CpxExpressionOperatorState_Engine::GetValueType(const PutMessage& message,
                                                         unsigned block) {
  return ReadBlock<uint32_t>(message, block);
}

bool CpxExpressionOperatorState_Engine::LoadRawBuffer(const PutMessage& message, unsigned block,
                                                      uint32_t item, std::string_view& bytes) {
  if (GetValueType(message, block) != item) return false;
  bytes = message.GetKey().GetRawValue();
  return true;
}

uint64_t CpxExpressionOperatorState_Engine::LoadSubKey(const PutMessage& message, unsigned block) {
  return ReadBlock<uint64_t>(message, block + 1);
}

void CpxExpressionOperatorState_Engine::LoadCountStringValue(const PutMessage& message,
                                                             unsigned block, uint32_t item,
                                                             std::string& text, uint32_t& count) {
  if (GetValueType(message, block) != item || KeyBlocksAfter(message, block) != 1)
    VX_RAISE(msg_block_string, "persistent storage key", {"BlockNum", block + 1});
  std::string_view value;
  message.GetKey().FindBlock(block + 1, value);
  text.assign(value);
  std::string_view c = message.GetKey().GetRawValue();
  if (c.size() != 4) VX_RAISE(msg_block_size, "persistent storage key", {"BlockNum", block + 2});
  std::memcpy(&count, c.data(), 4);
}

void CpxExpressionOperatorState_Engine::RaiseUnknownItem(uint32_t item, const char* type_name) const {
  VX_RAISE(VX_SERVER_EXPRESSION_PERSISTENCE_WRONG_RESTORED_VALUE_TYPE, "state",
           {"Operator", m_operator_number},
           {"Type", type_name ? std::string(type_name) : "Unknown"}, {"item", item});
}

void CpxExpressionOperatorState_Engine::RestoreFromPersistentStorage(const PutMessage& message,
                                                                     unsigned block) {
  RaiseUnknownItem(GetValueType(message, block), nullptr);
}

// ---- evaluator ----

void CpxExpressionEvaluator_Engine::SetPersistentKey(CpxPersistentStorageBatch* batch,
                                                     const CpxPersistentStorageKey& key) {
  m_batch = batch;
  m_key = key;
}

void CpxExpressionEvaluator_Engine::RemoveAllFromPersistentStorage() {
  if (!m_batch) return;
  CancelDeferred();
  for (const Ptr<CpxExpressionOperatorState_Engine>& state : m_states)
    if (state) state->CancelDeferredWrite();
  m_batch->DeleteAll(m_key);
}

void CpxExpressionEvaluator_Engine::RestoreFromPersistentStorage(
    const CpxPersistentStorageMessage_Put& message, unsigned block) {
  const uint32_t number = ReadBlock<uint32_t>(message, block);
  if (number >= m_context->GetOperatorCount()) {
    VX_RAISE_TEXT(
        "Persistent storage data have operator number greater than exist in expression context "
        "'{Name}'.",
        m_context->GetName(), {"Name", m_context->GetName()}, {"operator", number});
  }
  CpxExpressionOperatorState_Engine* state = GetOperatorState(number);
  if (!state) {
    VX_RAISE(VX_SERVER_EXPRESSION_PERSISTENCE_WRONG_RESTORED_VALUE_TYPE, m_context->GetName(),
             {"Operator", number}, {"Type", "Unknown"});
  }
  state->RestoreFromPersistentStorage(message, block + 1);
}

// ---- context ----

Ptr<CpxExpressionEvaluator_Engine> CpxExpressionContext_Engine::RestoredEvaluator(
    const CpxPersistentStorageMessage_Put& message, unsigned& block) {
  const bool grouped_record = ReadBlock<uint8_t>(message, block) != 0;
  ++block;
  if (grouped_record && !m_group_by_key) {
    VX_RAISE_TEXT("Persistent data have group by key but expression context '{Name}' does not "
                  "have it.",
                  GetName(), {"Name", GetName()});
  }
  if (!grouped_record && m_group_by_key) {
    VX_RAISE_TEXT("Persistent data have no group by key but expression context '{Name}' does "
                  "have it.",
                  GetName(), {"Name", GetName()});
  }
  if (!grouped_record) {
    if (!m_single) {
      m_single = NewEvaluator();
      CpxPersistentStorageKey key = m_key;
      key.AppendTypedValue<uint8_t>(0);
      m_single->SetPersistentKey(m_batch, key);
    }
    return m_single;
  }
  const uint64_t id = ReadBlock<uint64_t>(message, block);
  ++block;
  Ptr<CpxExpressionEvaluator_Engine>& ev = m_restoring[id];
  if (!ev) {
    ev = NewGroupEvaluator(id);
    if (m_cache) m_cache->NoteRestoredGroup(id);
    if (id >= m_next_group_id) m_next_group_id = id + 1;
  }
  return ev;
}

void CpxExpressionContext_Engine::RestoreFromPersistentStorage(
    const CpxPersistentStorageMessage_Put& message) {
  if (!m_initialized) InitializeEvaluators();
  unsigned block = m_key.GetValuesNumber();
  Ptr<CpxExpressionEvaluator_Engine> ev = RestoredEvaluator(message, block);
  // A group record: nothing follows the group identity but the value.
  if (m_group_by_key && message.GetKey().GetValuesNumber() == block + 1) {
    std::string_view value = message.GetKey().GetRawValue();
    const CpxTupleDescriptor* td = m_group_by_key->GetDescriptor();
    Ptr<CpxTuple> row = td->CreateDefaultTuple();
    uint32_t count = 0;
    if (value.size() < 4 ||
        !row->DeserializeBody(reinterpret_cast<const unsigned char*>(value.data()) + 4,
                              static_cast<uint32_t>(value.size() - 4))) {
      VX_RAISE(msg_block_size, GetName(), {"BlockNum", block});
    }
    std::memcpy(&count, value.data(), 4);
    ev->SetTuplesCount(count);
    ev->SetGroupTuple(row);
    return;
  }
  ev->RestoreFromPersistentStorage(message, block);
}

namespace {

// Hands every stored record of one context to it.
class MessageProcessor_PersistentStorage_Restore final : public MessageProcessor {
 public:
  explicit MessageProcessor_PersistentStorage_Restore(CpxExpressionContext_Engine& context)
      : m_context(context) {}
  void Process(const CpxPersistentStorageMessage_Put& message) override {
    m_context.RestoreFromPersistentStorage(message);
  }

 private:
  CpxExpressionContext_Engine& m_context;
};

}  // namespace

void CpxExpressionContext_Engine::RestoreMessages() {
  if (!m_manager) return;
  MessageProcessor_PersistentStorage_Restore processor(*this);
  m_manager->GetMessages(m_key, processor);
  RestoreMessagesFinalize();
}

void CpxExpressionEvaluator_Engine::RestoreFinalize() {
  for (CpxExpressionOperatorState_Engine* state : m_live_states) state->RestoreFinalize();
}

void CpxExpressionContext_Engine::RestoreMessagesFinalize() {
  if (m_single) m_single->RestoreFinalize();
  for (auto& [id, ev] : m_restoring) {
    ev->RestoreFinalize();
    if (!ev->GetGroupTuple()) {
      VX_RAISE_TEXT("Persistent storage data of group {group} in expression context '{Name}' have "
                    "no group record.",
                    GetName(), {"group", id}, {"Name", GetName()});
    }
    InsertGroup(ev);
  }
  m_restoring.clear();
}

}  // namespace vx
