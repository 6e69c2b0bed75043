// The storage library: keys, batches and messages of the persistent store,
// over RocksDB as the embedded store (storage kind "BASIC").
//
// A key (`CpxPersistentStorageKey`) is an ordered sequence of blocks, each a
// run of bytes with its own size. In the store a key is encoded block by
// block as a 4-byte big-endian size followed by the block's bytes, so that a
// key's encoding is a byte prefix of the encoding of every key that extends
// it: deleting a group is one range delete over its prefix, and records come
// back in key order with a group's record before its states' records.
//
// A put message is a key whose last block is the record's value; in the store
// the value block is the record's value and the blocks before it its key. A
// delete message removes one record; a delete-all message removes every
// record whose key extends its key.
//
// Batches collect the messages of one row and are written atomically by the
// storage manager. Nothing here is thread safe: one manager, batch and cache
// serve one context on one thread.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/ptr.h"

namespace rocksdb {
class DB;
class WriteBatch;
}  // namespace rocksdb

namespace vx {

class WritableBlocksBuffer {
 public:
  // Appends a block holding `size` bytes copied from `block`.
  void AppendBlock(uint32_t size, const void* block);
  // Appends a block of `size` bytes and returns its storage.
  unsigned char* AppendBlock(uint32_t size);
  template <class T>
  void AppendTypedValue(const T& value) {
    AppendBlock(sizeof value, &value);
  }
  void AppendRawValue(const void* bytes, uint32_t size) { AppendBlock(size, bytes); }
  // Drops blocks from the end until `count` remain.
  void Truncate(unsigned count);

  unsigned GetValuesNumber() const { return static_cast<unsigned>(m_offsets.size()); }
  // The block with this number (from 0); false when there is none.
  bool FindBlock(unsigned number, std::string_view& block) const;
  template <class T>
  bool GetTypedValue(unsigned number, T& value) const {
    std::string_view b;
    if (!FindBlock(number, b) || b.size() != sizeof value) return false;
    std::memcpy(&value, b.data(), sizeof value);
    return true;
  }
  // The last block: a put message's value.
  std::string_view GetRawValue() const;
  uint32_t GetRawValueSize() const { return static_cast<uint32_t>(GetRawValue().size()); }

  // The encoding of the first `count` blocks (all by default).
  std::string_view Encoded(unsigned count) const;
  std::string_view Encoded() const { return m_encoded; }
  // Reads an encoding; false when the bytes are not a sequence of blocks.
  static bool Decode(std::string_view encoded, WritableBlocksBuffer& out);

  bool operator==(const WritableBlocksBuffer& o) const { return m_encoded == o.m_encoded; }

 private:
  std::string m_encoded;
  std::vector<uint32_t> m_offsets;  // start of each block's size word
};

class CpxPersistentStorageKey : public WritableBlocksBuffer {};

class CpxPersistentStorageMessage {
 public:
  enum class Kind { kPut, kDel, kDelAll };
  CpxPersistentStorageMessage(Kind kind, CpxPersistentStorageKey key)
      : m_kind(kind), m_key(std::move(key)) {}
  virtual ~CpxPersistentStorageMessage() = default;
  Kind GetKind() const { return m_kind; }
  const CpxPersistentStorageKey& GetKey() const { return m_key; }
  CpxPersistentStorageKey& GetKey() { return m_key; }

 private:
  Kind m_kind;
  CpxPersistentStorageKey m_key;
};

// Blocks: the record's key blocks, then its value as the last block.
class CpxPersistentStorageMessage_Put : public CpxPersistentStorageMessage {
 public:
  explicit CpxPersistentStorageMessage_Put(CpxPersistentStorageKey key)
      : CpxPersistentStorageMessage(Kind::kPut, std::move(key)) {}
};
class CpxPersistentStorageMessage_Del : public CpxPersistentStorageMessage {
 public:
  explicit CpxPersistentStorageMessage_Del(CpxPersistentStorageKey key)
      : CpxPersistentStorageMessage(Kind::kDel, std::move(key)) {}
};
class CpxPersistentStorageMessage_DelAll : public CpxPersistentStorageMessage {
 public:
  explicit CpxPersistentStorageMessage_DelAll(CpxPersistentStorageKey key)
      : CpxPersistentStorageMessage(Kind::kDelAll, std::move(key)) {}
};

class CpxPersistentStorageBatch;

// Something that writes its records when the batch is written rather than at
// each change: a state that changes on every row writes its last values once
// per commit, and a table small enough to be one record is written whole
// instead of one record per changed entry. The batch keeps a share of each
// writer it holds, so a writer outlives its last change until the batch is
// written.
class CpxPersistentStorageDeferredWrite : public RefCounted {
 public:
  CpxPersistentStorageDeferredWrite() = default;
  // A copy waits in no batch.
  CpxPersistentStorageDeferredWrite(const CpxPersistentStorageDeferredWrite& o) : RefCounted(o) {}
  CpxPersistentStorageDeferredWrite& operator=(const CpxPersistentStorageDeferredWrite&) {
    return *this;
  }

  // Writes the records (Put, Delete, DeleteAll on `batch`). Called once per
  // Defer, when the batch is turned into the store's form.
  virtual void WriteDeferred(CpxPersistentStorageBatch& batch) = 0;

 protected:
  // Registers this writer with `batch` unless it already waits there. A
  // writer whose records must not be written after all (its group was
  // deleted) calls CancelDeferred.
  void Defer(CpxPersistentStorageBatch& batch);
  void CancelDeferred() { m_deferred_generation = 0; }
  // True inside WriteDeferred when the writer was deferred and not cancelled.
  bool IsDeferredIn(const CpxPersistentStorageBatch& batch) const;

 private:
  friend class CpxPersistentStorageBatch;
  uint64_t m_deferred_generation = 0;  // the batch generation it waits in; 0: none
};

// The changes written since the batch was started, committed atomically by
// the manager: the changes of one row, or of many when the caller commits
// every so many rows (see docs/persistence.md).
//
// A batch keeps only the effect of its messages: the last put or delete of
// each key (an accumulator that changes its sum on every row of a commit
// writes the sum once), and every delete-all, which also drops the batch's
// earlier messages under its prefix. Keys and values are copied into one
// buffer that keeps its capacity, so a batch that is filled and committed
// over and over stops allocating once it has grown to its largest size.
class CpxPersistentStorageBatch {
 public:
  CpxPersistentStorageBatch();
  ~CpxPersistentStorageBatch();
  CpxPersistentStorageBatch(const CpxPersistentStorageBatch&) = delete;
  CpxPersistentStorageBatch& operator=(const CpxPersistentStorageBatch&) = delete;

  // Puts the record whose key is `key` and whose value is `value`.
  void Put(const CpxPersistentStorageKey& key, std::string_view value);
  void Delete(const CpxPersistentStorageKey& key);
  // Deletes every record whose key extends `key` (the key itself included).
  void DeleteAll(const CpxPersistentStorageKey& key);
  void AddStorageMessage(const CpxPersistentStorageMessage& message);
  // Store-level records outside the key space of contexts (resume points).
  void PutMeta(std::string_view name, std::string_view value);

  bool IsEmpty() const;
  // The number of records the batch holds (after coalescing; deferred
  // writers not yet asked).
  size_t GetRecordCount() const { return m_records.size(); }
  void Clear();
  // The batch in RocksDB's form, built from what the batch holds once every
  // deferred writer has written.
  rocksdb::WriteBatch& GetWriteBatch();
  // Runs the deferred writers now (GetWriteBatch does it too).
  void WriteDeferred();

  // Changes with every Clear; unique over all batches of the process, never 0.
  uint64_t GetGeneration() const { return m_generation; }

 private:
  friend class CpxPersistentStorageDeferredWrite;
  // A record is a key and either a value or a deletion; `sequence` orders
  // its last write against the delete-alls.
  struct Record {
    uint32_t key_offset, key_size, value_offset, value_size;
    uint64_t sequence;
    bool erase;
  };
  struct IndexSlot {
    uint64_t hash;
    uint32_t record;  // index + 1; 0: the slot is empty
  };
  void Write(std::string_view key, std::string_view value, bool erase);
  std::string_view KeyOf(const Record& r) const { return {m_bytes.data() + r.key_offset, r.key_size}; }
  void GrowIndex();

  std::string m_bytes;                 // keys and values of the records
  std::vector<Record> m_records;       // in the order their keys were first written
  std::vector<IndexSlot> m_index;      // open addressing over the records' keys
  std::vector<std::pair<std::string, uint64_t>> m_delete_all;  // prefixes and when
  uint64_t m_sequence = 0;
  uint64_t m_generation;
  std::vector<Ptr<CpxPersistentStorageDeferredWrite>> m_deferred;
  std::unique_ptr<rocksdb::WriteBatch> m_batch;
};

// Receives stored put messages in key order.
class MessageProcessor {
 public:
  virtual ~MessageProcessor() = default;
  virtual void Process(const CpxPersistentStorageMessage_Put& message) = 0;
};

// The store: opens the folder, commits batches, delivers stored records.
class CpxPersistentStorageManager {
 public:
  // Opens (creating it when missing) the store of `kind` in `folder`. Only
  // "BASIC" exists. With `sync`, every committed batch is flushed to the disk
  // before EndBatch returns (durable against a machine crash); without it a
  // committed batch survives a crash of the process but not of the machine.
  // Raises on failure.
  static std::unique_ptr<CpxPersistentStorageManager> Open(const std::string& kind,
                                                           const std::string& folder,
                                                           bool sync = false);
  // Removes a store's folder and everything in it.
  static void Destroy(const std::string& folder);
  ~CpxPersistentStorageManager();

  CpxPersistentStorageBatch& GetBatch() { return m_batch; }
  // Clears the batch for a new row.
  void StartBatch();
  // Writes the batch atomically and clears it; returns the bytes written.
  size_t EndBatch();
  // Delivers every stored record whose key extends `prefix`, in key order.
  void GetMessages(const CpxPersistentStorageKey& prefix, MessageProcessor& processor) const;
  // A store-level record written with PutMeta; false when absent.
  bool GetMeta(std::string_view name, std::string& value) const;
  const std::string& GetFolder() const { return m_folder; }
  uint64_t GetBytesWritten() const { return m_bytes_written; }

 private:
  CpxPersistentStorageManager() = default;
  std::unique_ptr<rocksdb::DB> m_db;
  CpxPersistentStorageBatch m_batch;
  std::string m_folder;
  bool m_sync = false;
  uint64_t m_bytes_written = 0;
};

// Assigns group identities and tracks the live groups of one context: a
// group's identity is a number given when the group is created (never a hash
// of its key, so two groups never share records); after a restart numbering
// continues above every identity found in the store.
class CpxPersistentStorageMessageCache {
 public:
  uint64_t NewGroupId() { return m_next_id++; }
  void AddRecord(uint64_t group_id);
  void RemoveRecord(uint64_t group_id);
  void NoteRestoredGroup(uint64_t group_id);
  size_t GetRecordCount() const { return m_live; }

 private:
  uint64_t m_next_id = 1;
  size_t m_live = 0;
};

}  // namespace vx
