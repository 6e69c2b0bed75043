#include "support/storage.h"

#include <rocksdb/db.h>
#include <rocksdb/options.h>
#include <rocksdb/write_batch.h>

#include <filesystem>

#include "support/log.h"

namespace vx {

namespace {

LogMessageDefinition msg_storage_error() {
  return {"STORAGE_ERROR", "Persistent storage in '{folder}': {operation} failed: {error}",
          LogLevel::Error};
}

void Check(const rocksdb::Status& s, const std::string& folder, const char* operation) {
  if (!s.ok())
    VX_RAISE(msg_storage_error, folder, {"folder", folder}, {"operation", operation},
             {"error", s.ToString()});
}

// Store-level records live under a first byte no encoded key starts with (a
// key starts with a block size below 2^24 in practice).
const std::string kMetaPrefix = "\xFF" "meta:";

void PutBigEndian32(unsigned char* out, uint32_t v) {
  out[0] = static_cast<unsigned char>(v >> 24);
  out[1] = static_cast<unsigned char>(v >> 16);
  out[2] = static_cast<unsigned char>(v >> 8);
  out[3] = static_cast<unsigned char>(v);
}

uint32_t GetBigEndian32(const unsigned char* in) {
  return uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | uint32_t{in[3]};
}

// The smallest byte string greater than every string that starts with
// `prefix`.
std::string Successor(std::string_view prefix) {
  std::string s(prefix);
  while (!s.empty() && static_cast<unsigned char>(s.back()) == 0xFF) s.pop_back();
  if (s.empty()) return std::string(prefix) + std::string(1, '\xFF');
  s.back() = static_cast<char>(static_cast<unsigned char>(s.back()) + 1);
  return s;
}

}  // namespace

// ---- WritableBlocksBuffer ----

unsigned char* WritableBlocksBuffer::AppendBlock(uint32_t size) {
  const size_t at = m_encoded.size();
  m_offsets.push_back(static_cast<uint32_t>(at));
  m_encoded.resize(at + 4 + size);
  auto* bytes = reinterpret_cast<unsigned char*>(m_encoded.data());
  PutBigEndian32(bytes + at, size);
  return bytes + at + 4;
}

void WritableBlocksBuffer::AppendBlock(uint32_t size, const void* block) {
  unsigned char* out = AppendBlock(size);
  if (size) std::memcpy(out, block, size);
}

void WritableBlocksBuffer::Truncate(unsigned count) {
  if (count >= m_offsets.size()) return;
  m_encoded.resize(m_offsets[count]);
  m_offsets.resize(count);
}

bool WritableBlocksBuffer::FindBlock(unsigned number, std::string_view& block) const {
  if (number >= m_offsets.size()) return false;
  const auto* bytes = reinterpret_cast<const unsigned char*>(m_encoded.data()) + m_offsets[number];
  block = std::string_view(reinterpret_cast<const char*>(bytes + 4), GetBigEndian32(bytes));
  return true;
}

std::string_view WritableBlocksBuffer::GetRawValue() const {
  std::string_view b;
  if (m_offsets.empty()) return b;
  FindBlock(static_cast<unsigned>(m_offsets.size() - 1), b);
  return b;
}

std::string_view WritableBlocksBuffer::Encoded(unsigned count) const {
  if (count >= m_offsets.size()) return m_encoded;
  return std::string_view(m_encoded).substr(0, m_offsets[count]);
}

bool WritableBlocksBuffer::Decode(std::string_view encoded, WritableBlocksBuffer& out) {
  out.m_encoded.assign(encoded);
  out.m_offsets.clear();
  size_t at = 0;
  while (at < encoded.size()) {
    if (encoded.size() - at < 4) return false;
    const uint32_t size = GetBigEndian32(reinterpret_cast<const unsigned char*>(encoded.data() + at));
    if (encoded.size() - at - 4 < size) return false;
    out.m_offsets.push_back(static_cast<uint32_t>(at));
    at += 4 + size;
  }
  return true;
}

// ---- CpxPersistentStorageBatch ----

CpxPersistentStorageBatch::CpxPersistentStorageBatch()
    : m_batch(std::make_unique<rocksdb::WriteBatch>()) {}
CpxPersistentStorageBatch::~CpxPersistentStorageBatch() = default;

void CpxPersistentStorageBatch::Put(const CpxPersistentStorageKey& key, std::string_view value) {
  std::string_view k = key.Encoded();
  m_batch->Put(rocksdb::Slice(k.data(), k.size()), rocksdb::Slice(value.data(), value.size()));
}

void CpxPersistentStorageBatch::Delete(const CpxPersistentStorageKey& key) {
  std::string_view k = key.Encoded();
  m_batch->Delete(rocksdb::Slice(k.data(), k.size()));
}

void CpxPersistentStorageBatch::DeleteAll(const CpxPersistentStorageKey& key) {
  std::string_view k = key.Encoded();
  const std::string end = Successor(k);
  m_batch->DeleteRange(rocksdb::Slice(k.data(), k.size()), rocksdb::Slice(end));
}

void CpxPersistentStorageBatch::AddStorageMessage(const CpxPersistentStorageMessage& message) {
  const CpxPersistentStorageKey& key = message.GetKey();
  switch (message.GetKind()) {
    case CpxPersistentStorageMessage::Kind::kPut: {
      std::string_view k = key.Encoded(key.GetValuesNumber() - 1);
      std::string_view v = key.GetRawValue();
      m_batch->Put(rocksdb::Slice(k.data(), k.size()), rocksdb::Slice(v.data(), v.size()));
      break;
    }
    case CpxPersistentStorageMessage::Kind::kDel:
      Delete(key);
      break;
    case CpxPersistentStorageMessage::Kind::kDelAll:
      DeleteAll(key);
      break;
  }
}

void CpxPersistentStorageBatch::PutMeta(std::string_view name, std::string_view value) {
  m_batch->Put(kMetaPrefix + std::string(name), rocksdb::Slice(value.data(), value.size()));
}

bool CpxPersistentStorageBatch::IsEmpty() const { return m_batch->Count() == 0; }
size_t CpxPersistentStorageBatch::GetDataSize() const { return m_batch->GetDataSize(); }
void CpxPersistentStorageBatch::Clear() { m_batch->Clear(); }

// ---- CpxPersistentStorageManager ----

std::unique_ptr<CpxPersistentStorageManager> CpxPersistentStorageManager::Open(
    const std::string& kind, const std::string& folder, bool sync) {
  if (kind != "BASIC") {
    VX_RAISE(msg_storage_error, folder, {"folder", folder}, {"operation", "open"},
             {"error", "unknown storage kind '" + kind + "' (only BASIC exists)"});
  }
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  rocksdb::Options options;
  options.create_if_missing = true;
  options.max_open_files = 64;
  options.keep_log_file_num = 2;
  rocksdb::DB* db = nullptr;
  Check(rocksdb::DB::Open(options, folder, &db), folder, "open");
  std::unique_ptr<CpxPersistentStorageManager> m(new CpxPersistentStorageManager());
  m->m_db.reset(db);
  m->m_folder = folder;
  m->m_sync = sync;
  return m;
}

void CpxPersistentStorageManager::Destroy(const std::string& folder) {
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
}

CpxPersistentStorageManager::~CpxPersistentStorageManager() {
  if (m_db) m_db->Close();
}

void CpxPersistentStorageManager::StartBatch() { m_batch.Clear(); }

size_t CpxPersistentStorageManager::EndBatch() {
  if (m_batch.IsEmpty()) return 0;
  rocksdb::WriteOptions options;
  options.sync = m_sync;
  const size_t size = m_batch.GetDataSize();
  Check(m_db->Write(options, &m_batch.GetWriteBatch()), m_folder, "write");
  m_batch.Clear();
  m_bytes_written += size;
  return size;
}

void CpxPersistentStorageManager::GetMessages(const CpxPersistentStorageKey& prefix,
                                              MessageProcessor& processor) const {
  std::unique_ptr<rocksdb::Iterator> it(m_db->NewIterator(rocksdb::ReadOptions()));
  std::string_view p = prefix.Encoded();
  const rocksdb::Slice start(p.data(), p.size());
  for (it->Seek(start); it->Valid() && it->key().starts_with(start); it->Next()) {
    CpxPersistentStorageKey key;
    const rocksdb::Slice k = it->key();
    if (!WritableBlocksBuffer::Decode(std::string_view(k.data(), k.size()), key)) {
      VX_RAISE(msg_storage_error, m_folder, {"folder", m_folder}, {"operation", "read"},
               {"error", "a stored key is not a sequence of blocks"});
    }
    const rocksdb::Slice v = it->value();
    key.AppendRawValue(v.data(), static_cast<uint32_t>(v.size()));
    processor.Process(CpxPersistentStorageMessage_Put(std::move(key)));
  }
  Check(it->status(), m_folder, "read");
}

bool CpxPersistentStorageManager::GetMeta(std::string_view name, std::string& value) const {
  rocksdb::Status s = m_db->Get(rocksdb::ReadOptions(), kMetaPrefix + std::string(name), &value);
  if (s.IsNotFound()) return false;
  Check(s, m_folder, "read");
  return true;
}

// ---- CpxPersistentStorageMessageCache ----

void CpxPersistentStorageMessageCache::AddRecord(uint64_t) { ++m_live; }

void CpxPersistentStorageMessageCache::RemoveRecord(uint64_t) {
  if (m_live) --m_live;
}

void CpxPersistentStorageMessageCache::NoteRestoredGroup(uint64_t group_id) {
  ++m_live;
  if (group_id >= m_next_id) m_next_id = group_id + 1;
}

}  // namespace vx
