// The persistent store's keys and records, and restoring contexts from them.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <set>

#include "support/storage.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

namespace fs = std::filesystem;
using testing::ContextXml;
using testing::Op;
using testing::Ref;

class TempStore : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() /
            ("vx_store_" + std::to_string(::getpid()) + "_" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(m_dir);
  }
  void TearDown() override { fs::remove_all(m_dir); }
  std::string Dir() const { return m_dir.string(); }
  fs::path m_dir;
};

CpxPersistentStorageKey Key(std::initializer_list<std::string> blocks) {
  CpxPersistentStorageKey key;
  for (const std::string& b : blocks) key.AppendBlock(static_cast<uint32_t>(b.size()), b.data());
  return key;
}

struct Collect : MessageProcessor {
  std::vector<CpxPersistentStorageKey> keys;
  void Process(const CpxPersistentStorageMessage_Put& m) override { keys.push_back(m.GetKey()); }
};

TEST(StorageKey, BlocksEncodeAsPrefixesAndDecodeBack) {
  CpxPersistentStorageKey parent = Key({"ctx", "g1"});
  CpxPersistentStorageKey child = parent;
  child.AppendTypedValue<uint32_t>(7);
  EXPECT_EQ(child.Encoded().substr(0, parent.Encoded().size()), parent.Encoded());
  EXPECT_EQ(child.Encoded(2), parent.Encoded());
  uint32_t v = 0;
  EXPECT_TRUE(child.GetTypedValue(2, v));
  EXPECT_EQ(v, 7u);
  uint64_t wrong = 0;
  EXPECT_FALSE(child.GetTypedValue(2, wrong));  // sizes must agree
  std::string_view b;
  EXPECT_FALSE(child.FindBlock(3, b));

  CpxPersistentStorageKey back;
  ASSERT_TRUE(WritableBlocksBuffer::Decode(child.Encoded(), back));
  EXPECT_TRUE(back == child);
  EXPECT_FALSE(WritableBlocksBuffer::Decode(std::string_view("\0\0\0\5ab", 6), back));
  // A block holding "g" followed by one holding "1..." is not a prefix of
  // the block "g1": the size words keep groups apart.
  EXPECT_NE(Key({"ctx", "g"}).Encoded(), child.Encoded().substr(0, Key({"ctx", "g"}).Encoded().size()));
}

TEST_F(TempStore, DeleteAllRemovesOneGroupAndCommitsAtomically) {
  auto store = CpxPersistentStorageManager::Open("BASIC", Dir());
  store->StartBatch();
  CpxPersistentStorageBatch& batch = store->GetBatch();
  for (const char* g : {"a", "ab", "b"}) {
    CpxPersistentStorageKey k = Key({"ctx", g});
    batch.Put(k, "count");
    k.AppendTypedValue<uint32_t>(1);
    batch.Put(k, "state");
  }
  EXPECT_GT(store->EndBatch(), 0u);
  store->StartBatch();
  store->GetBatch().DeleteAll(Key({"ctx", "a"}));
  store->EndBatch();
  Collect all;
  store->GetMessages(Key({"ctx"}), all);
  ASSERT_EQ(all.keys.size(), 4u);  // "b" and "ab" with their states remain
  std::string_view first, second;
  all.keys[0].FindBlock(1, first);
  all.keys[2].FindBlock(1, second);
  EXPECT_EQ(first, "b");  // shorter blocks sort first: the size word leads
  EXPECT_EQ(second, "ab");
  EXPECT_EQ(all.keys[0].GetRawValue(), "count");  // a group's record comes first
  EXPECT_EQ(all.keys[1].GetRawValue(), "state");

  // A batch that is never ended writes nothing.
  store->StartBatch();
  store->GetBatch().Put(Key({"ctx", "c"}), "lost");
  store.reset();
  store = CpxPersistentStorageManager::Open("BASIC", Dir());
  Collect after;
  store->GetMessages(Key({"ctx", "c"}), after);
  EXPECT_TRUE(after.keys.empty());
  testing::QuietLog quiet;
  EXPECT_THROW(CpxPersistentStorageManager::Open("FANCY", Dir()), ExceptionType);
}

// A grouped context with one Prev; the tests feed hand-made records to it.
const char* kPrevContext =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"k\" Type=\"string\"/>"
    "<Field Name=\"v\" Type=\"integer\"/></TupleDescriptor></InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"p\" Type=\"integer\"/>"
    "</TupleDescriptor></OutputTuples><ConstantTuples><TupleDescriptor Name=\"K\">"
    "<Field Name=\"one\" Type=\"integer\" Default=\"1\"/></TupleDescriptor></ConstantTuples>";

Ptr<CpxExpressionContext_Engine> PrevContext(CpxExpressionContextParent_Engine* parent) {
  return testing::Load(
      ContextXml(std::string(kPrevContext) + "<Operators>" +
                 Op("prev", "Prev", Ref("Input", "In", "v") + Ref("Constant", "K", "one"),
                    Ref("Output", "Out", "p")) +
                 "</Operators>"),
      parent);
}

std::string RestoreError(CpxExpressionContext_Engine& ctx, CpxPersistentStorageKey record) {
  record.AppendRawValue("xxxx", 4);
  try {
    ctx.RestoreFromPersistentStorage(CpxPersistentStorageMessage_Put(record));
  } catch (const ExceptionType& e) {
    return e.GetMessage().GetText();
  }
  return "no error";
}

TEST_F(TempStore, RestoreRejectsRecordsThatDoNotFit) {
  testing::QuietLog quiet;
  testing::TestParent grouped_parent({"k"});
  testing::TestParent plain_parent;
  CpxPersistentStorageBatch batch;
  CpxPersistentStorageMessageCache cache;
  const CpxPersistentStorageKey base = Key({"ctx"});

  Ptr<CpxExpressionContext_Engine> plain = PrevContext(&plain_parent);
  plain->InitializeEvaluators(nullptr, &batch, base, &cache, nullptr);
  CpxPersistentStorageKey grouped_record = base;
  grouped_record.AppendTypedValue<uint8_t>(1);
  grouped_record.AppendTypedValue<uint64_t>(1);
  EXPECT_EQ(RestoreError(*plain, grouped_record),
            "Persistent data have group by key but expression context 't' does not have it.");

  Ptr<CpxExpressionContext_Engine> grouped = PrevContext(&grouped_parent);
  grouped->InitializeEvaluators(nullptr, &batch, base, &cache, nullptr);
  CpxPersistentStorageKey single_record = base;
  single_record.AppendTypedValue<uint8_t>(0);
  single_record.AppendTypedValue<uint32_t>(0);
  EXPECT_EQ(RestoreError(*grouped, single_record),
            "Persistent data have no group by key but expression context 't' does have it.");

  CpxPersistentStorageKey past_end = base;
  past_end.AppendTypedValue<uint8_t>(0);
  past_end.AppendTypedValue<uint32_t>(1);  // the context has one operator
  past_end.AppendTypedValue<uint32_t>(1);
  EXPECT_EQ(RestoreError(*plain, past_end),
            "Persistent storage data have operator number greater than exist in expression "
            "context 't'.");

  CpxPersistentStorageKey unknown_item = base;
  unknown_item.AppendTypedValue<uint8_t>(0);
  unknown_item.AppendTypedValue<uint32_t>(0);
  unknown_item.AppendTypedValue<uint32_t>(99);
  EXPECT_EQ(RestoreError(*plain, unknown_item), "Operator 0 cannot restore a persistent value of "
                                                "type Prev");

  CpxPersistentStorageKey short_block = base;
  short_block.AppendTypedValue<uint8_t>(0);
  short_block.AppendTypedValue<uint16_t>(0);
  EXPECT_EQ(RestoreError(*plain, short_block),
            "The block 2 has incorrect size in persistent storage key");
  CpxPersistentStorageKey missing = base;
  missing.AppendTypedValue<uint8_t>(0);
  EXPECT_EQ(RestoreError(*plain, missing), "The block 2 is not found in persistent storage key");
}

// Rows through a grouped Prev, with a restart (a new context restored from
// the store alone) after every row; the outputs must equal a run without
// restarts, and the group counts must come back.
TEST_F(TempStore, RestartAfterEveryRowGivesTheSameOutputs) {
  testing::TestParent parent({"k"});
  const std::vector<std::pair<std::string, int>> rows = {
      {"a", 1}, {"b", 2}, {"a", 3}, {"a", 4}, {"b", 5}, {"c", 6}, {"a", 7}};
  auto run = [&](bool restart) {
    std::vector<std::string> outputs;
    std::unique_ptr<CpxPersistentStorageManager> store;
    CpxPersistentStorageMessageCache cache;
    Ptr<CpxExpressionContext_Engine> ctx;
    for (size_t i = 0; i < rows.size(); ++i) {
      if (!ctx || restart) {
        ctx = nullptr;
        store.reset();
        store = CpxPersistentStorageManager::Open("BASIC", Dir());
        cache = CpxPersistentStorageMessageCache();
        ctx = PrevContext(&parent);
        ctx->InitializeEvaluators(nullptr, &store->GetBatch(), Key({"ctx"}), &cache, store.get());
        ctx->RestoreMessages();
        std::set<std::string> seen;
        for (size_t j = 0; j < i; ++j) seen.insert(rows[j].first);
        EXPECT_EQ(ctx->GetGroupCount(), seen.size());
      }
      Ptr<CpxTuple> row = ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
      CpxTupleField_String::SetValue(*row, 0, rows[i].first);
      CpxTupleField_Integer::SetValue(*row, 1, rows[i].second);
      CpxTuplesList_Vector inputs;
      inputs.Add(row);
      store->StartBatch();
      Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*row);
      ev->Reset();
      ev->Execute(0, &inputs);
      store->EndBatch();
      outputs.push_back(ev->GetOutputTuples()->GetObjectByPos(0)->ToString());
    }
    ctx = nullptr;
    store.reset();
    CpxPersistentStorageManager::Destroy(Dir());
    return outputs;
  };
  const std::vector<std::string> straight = run(false);
  EXPECT_EQ(straight[2], "Out[ts=1970-01-01 00:00:00, sign=+]{p=1}");
  EXPECT_EQ(run(true), straight);
}

}  // namespace
}  // namespace vx
