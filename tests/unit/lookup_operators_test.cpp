// What the XML suites cannot reach for the row, sequence, lookup and user
// operators: load-time parameter faults, sequences across a reopened store,
// and the embedding interface's environment (tables read at run time,
// sequences kept in a stream's state folder, the current user).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "cpx_expressions/cpx_context_services.h"
#include "tests/unit/test_util.h"
#include "vx_expressions/vx_expressions.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Load;
using testing::Op;
using testing::Ref;

// A parent that offers one tuple storage, "rates" (currency string, rate
// float).
class StorageParent final : public testing::TestParent {
 public:
  StorageParent() {
    Ptr<CpxTupleDescriptor> td = MakePtr<CpxTupleDescriptor>("Rate");
    td->AddField(MakePtr<CpxTupleField>("currency", CpxFieldKind::String));
    td->AddField(MakePtr<CpxTupleField>("rate", CpxFieldKind::Float));
    m_rates = std::make_unique<CpxTuplesStorage_Vector>(td);
  }
  const CpxTuplesStorage* FindTuplesStorage(std::string_view name) const override {
    return name == "rates" ? m_rates.get() : nullptr;
  }

 private:
  std::unique_ptr<CpxTuplesStorage_Vector> m_rates;
};

const char kDescriptors[] =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"f\" Type=\"float\"/></TupleDescriptor>"
    "<TupleDescriptor Name=\"Same\"><Field Name=\"f\" Type=\"float\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"i\" Type=\"integer\"/></TupleDescriptor>"
    "<TupleDescriptor Name=\"Wider\"><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"f\" Type=\"float\"/>"
    "<Field Name=\"x\" Type=\"integer\"/></TupleDescriptor>"
    "<TupleDescriptor Name=\"Retyped\"><Field Name=\"i\" Type=\"long\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"f\" Type=\"float\"/></TupleDescriptor>"
    "</InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"l\" Type=\"long\"/><Field Name=\"f\" Type=\"float\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"b\" Type=\"boolean\"/>"
    "<Field Name=\"t\" Type=\"time\"/></TupleDescriptor>"
    "<TupleDescriptor Name=\"Other\"><Field Name=\"y\" Type=\"integer\"/></TupleDescriptor>"
    "<TupleDescriptor Name=\"Clash\"><Field Name=\"i\" Type=\"string\"/></TupleDescriptor>"
    "</OutputTuples>"
    "<ConstantTuples><TupleDescriptor Name=\"K\">"
    "<Field Name=\"rates\" Type=\"string\" Default=\"rates\"/>"
    "<Field Name=\"later\" Type=\"string\" Default=\"not_yet\"/>"
    "<Field Name=\"rate\" Type=\"string\" Default=\"rate\"/>"
    "<Field Name=\"currency\" Type=\"string\" Default=\"currency\"/>"
    "<Field Name=\"nope\" Type=\"string\" Default=\"nope\"/>"
    "</TupleDescriptor></ConstantTuples>";

std::string In(const char* f) { return Ref("Input", "In", f); }
std::string Out(const char* f) { return Ref("Output", "Out", f); }
std::string K(const char* f) { return Ref("Constant", "K", f); }

// Every fault is found when the context is loaded, with its own message.
TEST(RowAndLookupOperators, LoadTimeParameterFaults) {
  testing::QuietLog quiet;
  struct Case {
    const char* what;
    std::string type, inputs, outputs;
    const char* id;  // nullptr: the context loads
  };
  const std::vector<Case> cases = {
      {"First takes one input", "First", In("i") + In("f"), Out("i"),
       "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS"},
      {"First needs an output", "First", In("i"), "",
       "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_OUTPUT_PARAMETERS"},
      {"Last keeps the input's type", "Last", In("i"), Out("l"),
       "VX_SERVER_EXPRESSION_INPUT_TYPE_DOES_NOT_MATCH_OUTPUT_TYPE"},
      {"GetLastTimestamp gives a time", "GetLastTimestamp", In("i"), Out("i"),
       "VX_SERVER_EXPRESSION_INPUT_TYPE_DOES_NOT_MATCH_OUTPUT_TYPE"},
      {"GetFirstTimestamp of any field", "GetFirstTimestamp", In("s"), Out("t"), nullptr},
      {"CopyByRef pairs same-named fields of one type", "CopyByRef", In("i"),
       Ref("Output", "Clash", "i"), "VX_SERVER_EXPRESSION_PARAMETER_OUTPUT_TYPE_MISMATCH"},
      {"CopyByRef needs a shared field", "CopyByRef", In("i"), Ref("Output", "Other", "y"),
       "VX_SERVER_EXPRESSION_INVALID_PARAMETERS"},
      {"CopyByRef with some shared fields", "CopyByRef", In("i"), Out("i"), nullptr},
      {"IsEqualTuples pairs fields in any order", "IsEqualTuples",
       In("i") + Ref("Input", "Same", "i"), Out("b"), nullptr},
      {"IsEqualTuples refuses an extra field", "IsEqualTuples",
       In("i") + Ref("Input", "Wider", "i"), Out("b"), "VX_SERVER_EXPRESSION_CANT_FIND_FIELD"},
      {"IsEqualTuples refuses a missing field", "IsEqualTuples",
       Ref("Input", "Wider", "i") + In("i"), Out("b"), "VX_SERVER_EXPRESSION_CANT_FIND_FIELD"},
      {"IsEqualTuples refuses another type", "IsEqualTuples",
       In("i") + Ref("Input", "Retyped", "i"), Out("b"),
       "VX_SERVER_EXPRESSION_INCORRECT_FIELD_TYPE_FOUND"},
      {"IsEqualTuples gives a boolean", "IsEqualTuples", In("i") + In("i"), Out("i"),
       "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE"},
      {"NextVal gives a long", "NextVal", In("s"), Out("i"),
       "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE"},
      {"NextVal takes a name", "NextVal", In("i"), Out("l"),
       "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE"},
      {"GetColumnByName needs a column", "GetColumnByNameFloat", K("rates"), Out("f"),
       "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS"},
      {"GetColumnByName takes at most a row", "GetColumnByNameFloat",
       K("rates") + K("rate") + In("i") + In("i"), Out("f"),
       "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS"},
      {"the row is an integer", "GetColumnByNameFloat", K("rates") + K("rate") + In("f"),
       Out("f"), "VX_SERVER_EXPRESSION_THIRD_INPUT_WRONG_TYPE"},
      {"the output has the operator's type", "GetColumnByNameFloat", K("rates") + K("rate"),
       Out("i"), "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE"},
      {"a constant column the storage lacks", "GetColumnByNameFloat", K("rates") + K("nope"),
       Out("f"), "VX_SERVER_EXPRESSION_CANT_FIND_FIELD"},
      {"a constant column of another type", "GetColumnByNameFloat",
       K("rates") + K("currency"), Out("f"), "VX_SERVER_EXPRESSION_INCORRECT_FIELD_TYPE_FOUND"},
      {"a storage that does not exist yet is checked when read", "GetColumnByNameFloat",
       K("later") + K("nope"), Out("f"), nullptr},
      {"names read from the row are checked when read", "GetColumnByNameFloat",
       In("s") + In("s"), Out("f"), nullptr},
      {"a preference's default has the operator's type", "GetPreferenceInteger",
       In("s") + In("s"), Out("i"), "VX_SERVER_EXPRESSION_SECOND_INPUT_WRONG_TYPE"},
      {"a preference has a name", "GetPreferenceInteger", "", Out("i"),
       "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS"},
      {"GetCurrentUserName has no input", "GetCurrentUserName", In("s"), Out("s"),
       "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS"},
      {"IsCurrentUserInGroup gives a boolean", "IsCurrentUserInGroup", In("s"), Out("s"),
       "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE"},
  };
  StorageParent parent;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string xml =
        ContextXml(std::string(kDescriptors) + "<Operators>" +
                   Op("op", c.type, c.inputs, c.outputs) + "</Operators>");
    try {
      Load(xml, &parent);
      EXPECT_EQ(c.id, nullptr) << "loaded, expected " << c.id;
    } catch (const ExceptionType& e) {
      ASSERT_NE(c.id, nullptr) << e.what();
      EXPECT_STREQ(e.GetMessage().GetId(), c.id) << e.what();
    }
  }
}

// ---- sequences in a store ----

class SequenceStore : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = (std::filesystem::temp_directory_path() /
             ("vx_sequences_" + std::to_string(::getpid())))
                .string();
    CpxPersistentStorageManager::Destroy(m_dir);
  }
  void TearDown() override { CpxPersistentStorageManager::Destroy(m_dir); }

  // A fresh sequence storage over a reopened store, as after a restart.
  std::unique_ptr<CpxPersistentStorageManager> Reopen(CpxNextvalStorage_Sequences& seqs) {
    seqs.AttachStore(nullptr);
    m_store.reset();
    auto store = CpxPersistentStorageManager::Open("BASIC", m_dir);
    seqs.AttachStore(store.get());
    return store;
  }
  int64_t Draw(CpxNextvalStorage_Sequences& seqs, const char* name) {
    int64_t v = 0;
    EXPECT_TRUE(seqs.NextVal(name, v)) << name;
    return v;
  }

  std::string m_dir;
  std::unique_ptr<CpxPersistentStorageManager> m_store;
};

TEST_F(SequenceStore, CommittedDrawsSurviveAReopenAndUncommittedOnesDoNot) {
  auto declare = [](CpxNextvalStorage_Sequences& s) {
    s.Declare("ids", 100, 5);
    s.Declare("down", 0, -1);
  };
  {
    CpxNextvalStorage_Sequences seqs;
    declare(seqs);
    m_store = Reopen(seqs);
    m_store->StartBatch();
    EXPECT_EQ(Draw(seqs, "ids"), 100);
    EXPECT_EQ(Draw(seqs, "ids"), 105);
    EXPECT_EQ(Draw(seqs, "down"), 0);
    m_store->EndBatch();
    // Drawn but never committed: a crash here loses these draws.
    m_store->StartBatch();
    EXPECT_EQ(Draw(seqs, "ids"), 110);
    seqs.AttachStore(nullptr);
  }
  CpxNextvalStorage_Sequences seqs;
  declare(seqs);
  seqs.Declare("fresh", 7, 1);
  m_store = Reopen(seqs);
  m_store->StartBatch();
  EXPECT_EQ(Draw(seqs, "ids"), 110);
  EXPECT_EQ(Draw(seqs, "down"), -1);
  EXPECT_EQ(Draw(seqs, "fresh"), 7);
  int64_t v = 0;
  EXPECT_FALSE(seqs.NextVal("undeclared", v));
  m_store->EndBatch();
  // A sequence that is no longer declared keeps its record but is not revived.
  CpxNextvalStorage_Sequences only_fresh;
  only_fresh.Declare("fresh", 7, 1);
  m_store = Reopen(only_fresh);
  EXPECT_EQ(Draw(only_fresh, "fresh"), 8);
  EXPECT_FALSE(only_fresh.NextVal("ids", v));
  only_fresh.AttachStore(nullptr);
}

TEST_F(SequenceStore, SequencesUnderAnotherKeyAreSeparate) {
  CpxPersistentStorageKey other;
  other.AppendBlock(5, "other");
  CpxNextvalStorage_Sequences a, b(other);
  a.Declare("ids", 1, 1);
  b.Declare("ids", 1, 1);
  m_store = CpxPersistentStorageManager::Open("BASIC", m_dir);
  a.AttachStore(m_store.get());
  b.AttachStore(m_store.get());
  m_store->StartBatch();
  Draw(a, "ids");
  Draw(a, "ids");
  m_store->EndBatch();
  b.AttachStore(m_store.get());  // reads b's records back: there are none
  a.AttachStore(m_store.get());
  EXPECT_EQ(Draw(b, "ids"), 1);
  EXPECT_EQ(Draw(a, "ids"), 3);
  a.AttachStore(nullptr);
  b.AttachStore(nullptr);
}

}  // namespace
}  // namespace vx

// ---- the embedding interface ----

namespace {

using vx_expressions::Environment;
using vx_expressions::Stream;
using vx_expressions::StreamOptions;
using vx_expressions::Table;
using vx_expressions::User;

const char kApiContext[] = R"(<ExpressionContext Name="env" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance">
  <InputTuples><TupleDescriptor Name="In"><Field Name="k" Type="string"/><Field Name="v" Type="integer"/></TupleDescriptor></InputTuples>
  <OutputTuples><TupleDescriptor Name="Out"><Field Name="id" Type="long"/><Field Name="ext" Type="long"/>
    <Field Name="rate" Type="float"/><Field Name="user" Type="string"/><Field Name="admin" Type="boolean"/>
    <Field Name="limit" Type="integer"/><Field Name="first" Type="integer"/><Field Name="last" Type="integer"/></TupleDescriptor></OutputTuples>
  <ConstantTuples><TupleDescriptor Name="K"><Field Name="ids" Type="string" Default="ids"/>
    <Field Name="ext" Type="string" Default="external"/><Field Name="rates" Type="string" Default="rates"/>
    <Field Name="rate" Type="string" Default="rate"/><Field Name="admins" Type="string" Default="admins"/>
    <Field Name="limit" Type="string" Default="limit"/></TupleDescriptor></ConstantTuples>
  <Operators>
    <Operator Name="id" xsi:type="NextVal"><InputParameters><TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="ids"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="id"/></OutputParameters></Operator>
    <Operator Name="ext" xsi:type="NextVal"><InputParameters><TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="ext"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="ext"/></OutputParameters></Operator>
    <Operator Name="rate" xsi:type="GetColumnByNameFloat"><InputParameters>
      <TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="rates"/>
      <TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="rate"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="rate"/></OutputParameters></Operator>
    <Operator Name="user" xsi:type="GetCurrentUserName"><InputParameters/>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="user"/></OutputParameters></Operator>
    <Operator Name="admin" xsi:type="IsCurrentUserInGroup"><InputParameters><TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="admins"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="admin"/></OutputParameters></Operator>
    <Operator Name="limit" xsi:type="GetPreferenceInteger"><InputParameters><TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="limit"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="limit"/></OutputParameters></Operator>
    <Operator Name="first" xsi:type="First"><InputParameters><TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="v"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="first"/></OutputParameters></Operator>
    <Operator Name="last" xsi:type="Last"><InputParameters><TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="v"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="last"/></OutputParameters></Operator>
  </Operators>
</ExpressionContext>)";

// A server's environment: one table, an external sequence and a user.
class ServerEnvironment final : public Environment {
 public:
  ServerEnvironment() {
    rates = Table::Create(
        "<TupleDescriptor Name=\"Rate\"><Field Name=\"rate\" Type=\"float\"/></TupleDescriptor>");
    user.name = "alice";
    user.groups = {"admins"};
    user.preferences = {{"limit", "25"}};
  }
  std::optional<int64_t> NextValue(std::string_view name) override {
    if (name != "external") return std::nullopt;
    return external += 100;
  }
  const Table* FindTable(std::string_view name) const override {
    return name == "rates" ? rates.get() : nullptr;
  }
  const User* CurrentUser() const override { return logged_in ? &user : nullptr; }

  std::unique_ptr<Table> rates;
  User user;
  bool logged_in = true;
  int64_t external = 0;
};

// "id/ext/rate/user/admin/limit/first/last" of one pushed row.
std::string Push(Stream& s, int v, bool negative = false) {
  auto& row = s.Row();
  row.SetText(row.FieldIndex("k"), "x");
  row.SetInt64(row.FieldIndex("v"), v);
  row.SetNegative(negative);
  EXPECT_TRUE(s.Push(0));
  std::string text;
  const auto& out = s.Output(0);
  for (size_t i = 0; i < out.FieldCount(); ++i)
    text += (i ? "/" : "") + out.Text(i).value_or("NULL");
  return text;
}

TEST(PublicApiEnvironment, TablesUsersAndSequencesReachTheOperators) {
  ServerEnvironment env;
  StreamOptions options;
  options.environment = &env;
  options.sequences = {{"ids", {1, 1}}};
  auto s = Stream::OpenString(kApiContext, "env.xml", options);
  EXPECT_EQ(Push(*s, 10), "1/100/NULL/alice/true/25/10/10");
  // Rows are read at run time: a row added between pushes is the newest.
  env.rates->AppendRow().SetDouble(0, 1.5);
  EXPECT_EQ(Push(*s, 20), "2/200/1.5/alice/true/25/10/20");
  env.rates->AppendRow().SetText(0, "2.25");
  env.user.groups.clear();
  env.user.preferences["limit"] = "7";
  EXPECT_EQ(Push(*s, 30), "3/300/2.25/alice/false/7/10/30");
  env.rates->RemoveRow(1);
  env.logged_in = false;
  EXPECT_EQ(Push(*s, 10, true), "4/400/1.5/NULL/false/NULL/20/30");
  EXPECT_EQ(env.rates->RowCount(), 1u);
  EXPECT_THROW(env.rates->Row(1), vx_expressions::Error);
  {
    vx::testing::QuietLog quiet;
    EXPECT_THROW(Table::Create("<Tuple/>"), vx_expressions::Error);
  }
}

TEST(PublicApiEnvironment, StreamSequencesAndLiveRowsContinueAfterAReopen) {
  const std::string dir = (std::filesystem::temp_directory_path() /
                           ("vx_api_sequences_" + std::to_string(::getpid())))
                              .string();
  std::filesystem::remove_all(dir);
  ServerEnvironment env;
  StreamOptions options;
  options.environment = &env;
  options.state_dir = dir;
  options.sequences = {{"ids", {1000, -10}}};
  {
    auto s = Stream::OpenString(kApiContext, "env.xml", options);
    EXPECT_EQ(Push(*s, 1), "1000/100/NULL/alice/true/25/1/1");
    EXPECT_EQ(Push(*s, 2), "990/200/NULL/alice/true/25/1/2");
    EXPECT_EQ(Push(*s, 3), "980/300/NULL/alice/true/25/1/3");
  }
  {
    // The stream's own sequence and the live rows come back from the folder;
    // the environment's sequence is the environment's own (it went on in
    // memory here).
    auto s = Stream::OpenString(kApiContext, "env.xml", options);
    EXPECT_EQ(Push(*s, 1, true), "970/400/NULL/alice/true/25/2/3");
    EXPECT_EQ(Push(*s, 3, true), "960/500/NULL/alice/true/25/2/2");
  }
  options.sequences["ids"].increment = 0;
  EXPECT_THROW(Stream::OpenString(kApiContext, "env.xml", options), vx_expressions::Error);
  std::filesystem::remove_all(dir);
}

}  // namespace
