#include "cpx_expressions/cpx_context_services.h"

#include <cstring>

#include "support/log.h"

namespace vx {

// ---- CpxNextvalStorage_Sequences ----

CpxNextvalStorage_Sequences::CpxNextvalStorage_Sequences(CpxPersistentStorageKey prefix)
    : m_prefix(std::move(prefix)) {}

CpxPersistentStorageKey CpxNextvalStorage_Sequences::DefaultKey() {
  CpxPersistentStorageKey key;
  key.AppendBlock(7, "nextval");
  return key;
}

void CpxNextvalStorage_Sequences::Declare(const std::string& name, int64_t start,
                                          int64_t increment) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Sequence& s = m_sequences[name];
  s = Sequence{start, increment, 0, false};
}

namespace {

// Reads the sequence records of a store back into the declared sequences.
class SequenceRestore final : public MessageProcessor {
 public:
  SequenceRestore(std::map<std::string, CpxNextvalStorage_Sequences::Sequence, std::less<>>& seqs,
                  unsigned name_block)
      : m_sequences(seqs), m_name_block(name_block) {}
  void Process(const CpxPersistentStorageMessage_Put& message) override {
    std::string_view name, value = message.GetKey().GetRawValue();
    // Key blocks: the prefix, the name; then the value.
    if (message.GetKey().GetValuesNumber() != m_name_block + 2 ||
        !message.GetKey().FindBlock(m_name_block, name) || value.size() != 8)
      return;
    auto it = m_sequences.find(name);
    // A sequence no longer declared keeps its record but is not revived.
    if (it == m_sequences.end()) return;
    std::memcpy(&it->second.last, value.data(), 8);
    it->second.started = true;
  }

 private:
  std::map<std::string, CpxNextvalStorage_Sequences::Sequence, std::less<>>& m_sequences;
  unsigned m_name_block;
};

}  // namespace

void CpxNextvalStorage_Sequences::AttachStore(CpxPersistentStorageManager* store) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_store = store;
  if (!store) return;
  for (auto& [name, s] : m_sequences) {
    s.started = false;
    s.last = 0;
  }
  SequenceRestore restore(m_sequences, m_prefix.GetValuesNumber());
  store->GetMessages(m_prefix, restore);
}

bool CpxNextvalStorage_Sequences::NextVal(std::string_view name, int64_t& value) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_sequences.find(name);
  if (it == m_sequences.end()) return false;
  Sequence& s = it->second;
  int64_t next = s.start;
  if (s.started && __builtin_add_overflow(s.last, s.increment, &next)) {
    VX_RAISE_TEXT("sequence '{name}' is exhausted: {last} plus {increment} is beyond the range "
                  "of a long",
                  std::string(name), {"name", name}, {"last", s.last},
                  {"increment", s.increment});
  }
  s.last = next;
  s.started = true;
  value = next;
  if (m_store) {
    CpxPersistentStorageKey key = m_prefix;
    key.AppendBlock(static_cast<uint32_t>(name.size()), name.data());
    m_store->GetBatch().Put(key, std::string_view(reinterpret_cast<const char*>(&next), 8));
  }
  return true;
}

std::map<std::string, CpxNextvalStorage_Sequences::Sequence, std::less<>>
CpxNextvalStorage_Sequences::GetSequences() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_sequences;
}

// ---- CpxExpressionAuthenticationToken_Simple ----

bool CpxExpressionAuthenticationToken_Simple::FindPreference(std::string_view name,
                                                             std::string& value) const {
  auto it = m_preferences.find(name);
  if (it == m_preferences.end()) return false;
  value = it->second;
  return true;
}

}  // namespace vx
