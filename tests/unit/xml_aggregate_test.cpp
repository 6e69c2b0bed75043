// XmlAggAccumulatorXml over the persistent store: restarts in the middle of
// a stream, the records it keeps, and records it cannot restore.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "support/storage.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

namespace fs = std::filesystem;
using testing::ContextXml;
using testing::Op;
using testing::Ref;

const char* kAggregate =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"g\" Type=\"string\"/>"
    "<Field Name=\"x\" Type=\"xml\"/><Field Name=\"e\" Type=\"boolean\"/></TupleDescriptor>"
    "</InputTuples><OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"a\" Type=\"xml\"/>"
    "</TupleDescriptor></OutputTuples>";

Ptr<CpxExpressionContext_Engine> AggregateContext(CpxExpressionContextParent_Engine* parent) {
  return testing::Load(ContextXml(std::string(kAggregate) + "<Operators>" +
                                  Op("agg", "XmlAggAccumulatorXml",
                                     Ref("Input", "In", "x") + Ref("Input", "In", "e"),
                                     Ref("Output", "Out", "a")) +
                                  "</Operators>"),
                       parent);
}

CpxPersistentStorageKey ContextKey() {
  CpxPersistentStorageKey key;
  key.AppendBlock(3, "ctx");
  return key;
}

struct CountRecords : MessageProcessor {
  size_t count = 0;
  void Process(const CpxPersistentStorageMessage_Put&) override { ++count; }
};

// A grouped aggregate whose process can be restarted: the context is
// rebuilt from the store alone.
class XmlAggregate : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() / ("vx_xml_agg_" + std::to_string(::getpid()));
    fs::remove_all(m_dir);
    Restart();
  }
  void TearDown() override {
    m_ctx = nullptr;
    m_store.reset();
    fs::remove_all(m_dir);
  }
  void Restart() {
    m_ctx = nullptr;
    m_store.reset();
    m_store = CpxPersistentStorageManager::Open("BASIC", m_dir.string());
    m_cache = CpxPersistentStorageMessageCache();
    m_ctx = AggregateContext(&m_parent);
    m_ctx->InitializeEvaluators(nullptr, &m_store->GetBatch(), ContextKey(), &m_cache, m_store.get());
    m_ctx->RestoreMessages();
  }
  // The aggregate after one row ("(NULL)" for a NULL output).
  std::string Row(const std::string& group, const std::string& xml, bool enters) {
    Ptr<CpxTuple> row = m_ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    CpxTupleField_String::SetValue(*row, 0, group);
    EXPECT_TRUE(SetFieldFromText(*row, 1, xml)) << xml;
    CpxTupleField_Boolean::SetValue(*row, 2, enters);
    row->SetTupleType(enters ? Message::kPositive : Message::kNegative);
    CpxTuplesList_Vector inputs;
    inputs.Add(row);
    m_store->StartBatch();
    Ptr<CpxExpressionEvaluator_Engine> ev = m_ctx->GetEvaluator(*row);
    ev->Reset();
    ev->Execute(0, &inputs);
    m_store->EndBatch();
    const CpxTuple& out = *ev->GetOutputTuples()->GetObjectByPos(0);
    return out.HasFieldValue(0) ? std::string(CpxTupleField_Xml::GetView(&out, 0)) : "(NULL)";
  }
  size_t StoredRecords() const {
    CountRecords count;
    m_store->GetMessages(ContextKey(), count);
    return count.count;
  }

  fs::path m_dir;
  testing::TestParent m_parent{{"g"}};
  std::unique_ptr<CpxPersistentStorageManager> m_store;
  CpxPersistentStorageMessageCache m_cache;
  Ptr<CpxExpressionContext_Engine> m_ctx;
};

TEST_F(XmlAggregate, RestartsInTheMiddleKeepValuesAndArrivalOrder) {
  EXPECT_EQ(Row("k", "<a/>", true), "<a/>");
  EXPECT_EQ(Row("k", "<b n='1'/>", true), "<a/><b n=\"1\"/>");
  EXPECT_EQ(Row("k", "<a></a>", true), "<a/><b n=\"1\"/><a/>");
  EXPECT_EQ(Row("h", "x<y/>", true), "x<y/>");
  Restart();
  // The oldest of the two equal values leaves, whatever its surface form.
  EXPECT_EQ(Row("k", "<a\n/>", false), "<b n=\"1\"/><a/>");
  // New values sort after the restored ones.
  EXPECT_EQ(Row("k", "<c/>", true), "<b n=\"1\"/><a/><c/>");
  Restart();
  EXPECT_EQ(Row("k", "<never/>", false), "<b n=\"1\"/><a/><c/>");
  EXPECT_EQ(Row("k", "<c/>", false), "<b n=\"1\"/><a/>");
  EXPECT_EQ(Row("h", "x<y/>", false), "");
  Restart();
  EXPECT_EQ(m_ctx->GetGroupCount(), 1u);  // h left with its last value
  EXPECT_EQ(Row("k", "<d/>", true), "<b n=\"1\"/><a/><d/>");
  Restart();
  EXPECT_EQ(Row("k", "<b n='1'/>", false), "<a/><d/>");
  // k's records: its group record, two held values and the arrival counter.
  EXPECT_EQ(StoredRecords(), 4u);
}

TEST_F(XmlAggregate, UnrestorableRecordsAreReported) {
  testing::QuietLog quiet;
  testing::TestParent plain;
  CpxPersistentStorageBatch batch;
  CpxPersistentStorageMessageCache cache;
  Ptr<CpxExpressionContext_Engine> ctx = AggregateContext(&plain);
  ctx->InitializeEvaluators(nullptr, &batch, ContextKey(), &cache, nullptr);
  auto restore = [&](uint32_t item, bool keyed, std::string_view value) -> std::string {
    CpxPersistentStorageKey record = ContextKey();
    record.AppendTypedValue<uint8_t>(0);
    record.AppendTypedValue<uint32_t>(0);
    record.AppendTypedValue<uint32_t>(item);
    if (keyed) record.AppendTypedValue<uint64_t>(7);
    record.AppendRawValue(value.data(), static_cast<uint32_t>(value.size()));
    try {
      ctx->RestoreFromPersistentStorage(CpxPersistentStorageMessage_Put(record));
    } catch (const ExceptionType& e) {
      return e.GetMessage().GetText();
    }
    return "restored";
  };
  EXPECT_EQ(restore(0, true, "<a/>"), "restored");
  EXPECT_EQ(restore(0, true, "<a>"), "Cannot find Xml value in RestoreFromPersistentStorage");
  EXPECT_EQ(restore(1, false, "abc"),
            "Operator 0 cannot restore a persistent value of type XmlAggAccumulatorAgg");
  EXPECT_EQ(restore(2, false, "x"), "Operator 0 cannot restore a persistent value of type Unknown");
}

}  // namespace
}  // namespace vx
