#include "support/storage.h"

#include <rocksdb/db.h>
#include <rocksdb/memtablerep.h>
#include <rocksdb/options.h>
#include <rocksdb/write_batch.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

#include "support/hash.h"
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

// ---- deferred writers ----

namespace {

uint64_t NextBatchGeneration() {
  static std::atomic<uint64_t> generation{0};
  return generation.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

void CpxPersistentStorageDeferredWrite::Defer(CpxPersistentStorageBatch& batch) {
  if (m_deferred_generation == batch.m_generation) return;
  m_deferred_generation = batch.m_generation;
  batch.m_deferred.emplace_back(this);
}

bool CpxPersistentStorageDeferredWrite::IsDeferredIn(const CpxPersistentStorageBatch& batch) const {
  return m_deferred_generation == batch.m_generation;
}

// ---- CpxPersistentStorageBatch ----

CpxPersistentStorageBatch::CpxPersistentStorageBatch()
    : m_index(64, IndexSlot{0, 0}),
      m_generation(NextBatchGeneration()),
      m_batch(std::make_unique<rocksdb::WriteBatch>()) {}
CpxPersistentStorageBatch::~CpxPersistentStorageBatch() = default;

void CpxPersistentStorageBatch::Write(std::string_view key, std::string_view value, bool erase) {
  const uint64_t hash = CpxHashBytes(key.data(), key.size());
  const size_t mask = m_index.size() - 1;
  size_t i = hash & mask;
  for (; m_index[i].record; i = (i + 1) & mask) {
    if (m_index[i].hash != hash) continue;
    Record& r = m_records[m_index[i].record - 1];
    if (KeyOf(r) != key) continue;
    // A later write of the same key: its value replaces the earlier one (in
    // place when it fits).
    if (value.size() > r.value_size) r.value_offset = static_cast<uint32_t>(m_bytes.size());
    if (value.size() > r.value_size) m_bytes.append(value);
    else if (!value.empty()) std::memcpy(m_bytes.data() + r.value_offset, value.data(), value.size());
    r.value_size = static_cast<uint32_t>(value.size());
    r.erase = erase;
    r.sequence = ++m_sequence;
    return;
  }
  const uint32_t key_offset = static_cast<uint32_t>(m_bytes.size());
  m_bytes.append(key);
  m_bytes.append(value);
  m_records.push_back({key_offset, static_cast<uint32_t>(key.size()),
                       key_offset + static_cast<uint32_t>(key.size()),
                       static_cast<uint32_t>(value.size()), ++m_sequence, erase});
  m_index[i] = {hash, static_cast<uint32_t>(m_records.size())};
  if (2 * m_records.size() > m_index.size()) GrowIndex();
}

void CpxPersistentStorageBatch::GrowIndex() {
  std::vector<IndexSlot> index(2 * m_index.size(), IndexSlot{0, 0});
  const size_t mask = index.size() - 1;
  for (const IndexSlot& slot : m_index) {
    if (!slot.record) continue;
    size_t i = slot.hash & mask;
    while (index[i].record) i = (i + 1) & mask;
    index[i] = slot;
  }
  m_index.swap(index);
}

void CpxPersistentStorageBatch::Put(const CpxPersistentStorageKey& key, std::string_view value) {
  Write(key.Encoded(), value, false);
}

void CpxPersistentStorageBatch::Delete(const CpxPersistentStorageKey& key) {
  Write(key.Encoded(), {}, true);
}

void CpxPersistentStorageBatch::DeleteAll(const CpxPersistentStorageKey& key) {
  m_delete_all.emplace_back(std::string(key.Encoded()), ++m_sequence);
}

void CpxPersistentStorageBatch::AddStorageMessage(const CpxPersistentStorageMessage& message) {
  const CpxPersistentStorageKey& key = message.GetKey();
  switch (message.GetKind()) {
    case CpxPersistentStorageMessage::Kind::kPut:
      Write(key.Encoded(key.GetValuesNumber() - 1), key.GetRawValue(), false);
      break;
    case CpxPersistentStorageMessage::Kind::kDel:
      Delete(key);
      break;
    case CpxPersistentStorageMessage::Kind::kDelAll:
      DeleteAll(key);
      break;
  }
}

void CpxPersistentStorageBatch::PutMeta(std::string_view name, std::string_view value) {
  Write(kMetaPrefix + std::string(name), value, false);
}

bool CpxPersistentStorageBatch::IsEmpty() const {
  return m_records.empty() && m_delete_all.empty() && m_deferred.empty();
}

void CpxPersistentStorageBatch::Clear() {
  m_bytes.clear();
  m_records.clear();
  std::fill(m_index.begin(), m_index.end(), IndexSlot{0, 0});
  m_delete_all.clear();
  m_sequence = 0;
  m_deferred.clear();
  m_generation = NextBatchGeneration();
  m_batch->Clear();
}

// Each writer writes once; a writer that changes again afterwards (none
// does while the batch is being written) waits for the next batch.
void CpxPersistentStorageBatch::WriteDeferred() {
  for (size_t i = 0; i < m_deferred.size(); ++i) {
    CpxPersistentStorageDeferredWrite& w = *m_deferred[i];
    if (w.IsDeferredIn(*this)) w.WriteDeferred(*this);
    w.m_deferred_generation = 0;
  }
  m_deferred.clear();
}

// Each record's last write and each delete-all go into RocksDB's batch in the
// order they were made, so that a delete-all removes exactly what was
// written before it. Without delete-alls the order does not matter.
rocksdb::WriteBatch& CpxPersistentStorageBatch::GetWriteBatch() {
  WriteDeferred();
  m_batch->Clear();
  auto emit = [&](const Record& r) {
    const std::string_view k = KeyOf(r);
    if (r.erase) {
      m_batch->Delete(rocksdb::Slice(k.data(), k.size()));
    } else {
      m_batch->Put(rocksdb::Slice(k.data(), k.size()),
                   rocksdb::Slice(m_bytes.data() + r.value_offset, r.value_size));
    }
  };
  if (m_delete_all.empty()) {
    for (const Record& r : m_records) emit(r);
    return *m_batch;
  }
  std::vector<const Record*> order;
  order.reserve(m_records.size());
  for (const Record& r : m_records) order.push_back(&r);
  std::sort(order.begin(), order.end(),
            [](const Record* a, const Record* b) { return a->sequence < b->sequence; });
  size_t next = 0;
  for (const auto& [prefix, sequence] : m_delete_all) {
    for (; next < order.size() && order[next]->sequence < sequence; ++next) emit(*order[next]);
    const std::string end = Successor(prefix);
    m_batch->DeleteRange(rocksdb::Slice(prefix), rocksdb::Slice(end));
  }
  for (; next < order.size(); ++next) emit(*order[next]);
  return *m_batch;
}

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
  // State is written much and read back only when a store is opened: a
  // memtable that appends its records and sorts them when it is flushed
  // takes a record for the cost of a copy, where the default skip list
  // walks a few million-entry list with a cache miss at each step.
  options.memtable_factory = std::make_shared<rocksdb::VectorRepFactory>();
  options.allow_concurrent_memtable_write = false;
  options.compression = rocksdb::kNoCompression;
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
  rocksdb::WriteBatch& batch = m_batch.GetWriteBatch();
  if (batch.Count() == 0) {  // every writer found the store up to date
    m_batch.Clear();
    return 0;
  }
  const size_t size = batch.GetDataSize();
  Check(m_db->Write(options, &batch), m_folder, "write");
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
