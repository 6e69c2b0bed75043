// Logging and message sites, the XML object framework, memory accounting,
// tuple serialisation and the keyed tuple containers.
#include <gtest/gtest.h>

#include <atomic>
#include <algorithm>
#include <cstring>
#include <set>
#include <thread>

#include "support/messages.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

// ---- messages ----

[[noreturn]] void RaiseFromSharedSite(int n) {
  VX_RAISE_TEXT("worker {n} failed", "worker", {"n", n}, {"extra", "x"});
}

TEST(Log, SiteIsBuiltOnceAndSharedByThreads) {
  testing::QuietLog quiet;
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t, &right] {
      for (int i = 0; i < 200; ++i) {
        try {
          RaiseFromSharedSite(t * 1000 + i);
        } catch (const ExceptionType& e) {
          if (e.GetMessage().GetText() == "worker " + std::to_string(t * 1000 + i) + " failed")
            ++right;
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(right.load(), 8 * 200);
}

TEST(Log, FormatShowsLocationIdAndUnusedValues) {
  testing::QuietLog quiet;
  try {
    VX_RAISE(VX_SERVER_OBJECT_IS_NOT_VALID, "o", {"object", "ctx"}, {"reason", "empty"},
             {"hint", "add operators"});
  } catch (ExceptionType& e) {
    EXPECT_EQ(e.GetMessage().GetText(), "Object 'ctx' is not valid: empty");
    e.SetDocumentLocation("a.xml", 7);
    EXPECT_STREQ(e.what(),
                 "a.xml:7: VX_SERVER_OBJECT_IS_NOT_VALID: Object 'ctx' is not valid: empty "
                 "[hint=add operators]");
    e.SetDocumentLocation("b.xml", 9);  // the first location stays
    EXPECT_EQ(e.GetMessage().GetDocumentLine(), 7);
  }
}

TEST(Log, EveryDefinitionHasATextAndItsOwnId) {
  std::set<std::string> ids;
  for (const LogMessageDefinition& d : AllMessageDefinitions()) {
    EXPECT_TRUE(ids.insert(d.id).second) << d.id;
    EXPECT_GT(std::strlen(d.text), 10u) << d.id;
  }
  EXPECT_GE(ids.size(), 37u);
}

TEST(Log, TracingLogsEntryAndExitOfReaders) {
  std::vector<std::string> lines;
  LogManager& log = LogManager::Instance();
  LogManager::Sink previous =
      log.SetSink([&lines](const LogMessage& m) { lines.push_back(m.GetText()); });
  log.SetTracing(true);
  testing::Load(testing::ContextXml(""));
  log.SetTracing(false);
  log.SetSink(std::move(previous));
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(std::find(lines.begin(), lines.end(), "TRACING_IN DoReadContent"), lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "TRACING_OUT DoReadContent"), lines.end());
}

// ---- XML framework ----

TEST(XmlFramework, TypeNamesResolveThroughNamespaces) {
  auto reader = XmlReaderContext::FromMemory(
      "<r xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:p=\"urn:p\">"
      "<a xsi:type=\"Plain\"/><b xsi:type=\"p:Named\"/><c xsi:type=\"q:Undeclared\"/><d/></r>",
      "t.xml");
  reader->ExpectStartElement("r");
  reader->Next();
  reader->ExpectStartElement("a");
  EXPECT_EQ(*reader->GetXsiType(), XmlQName("Plain"));
  reader->Next();
  reader->ExpectStartElement("b");
  EXPECT_EQ(*reader->GetXsiType(), XmlQName("urn:p", "Named"));
  reader->Next();
  reader->ExpectStartElement("c");
  EXPECT_NE(reader->GetXsiType()->ns, "");  // never mistaken for a name in no namespace
  reader->Next();
  reader->ExpectStartElement("d");
  EXPECT_FALSE(reader->GetXsiType());
}

TEST(XmlFramework, NamedListsRejectDuplicatesWithTheirLine) {
  testing::QuietLog quiet;
  const std::string xml = testing::ContextXml(
      "<InputTuples>\n<TupleDescriptor Name=\"A\"/>\n<TupleDescriptor Name=\"A\"/>\n"
      "</InputTuples>");
  try {
    testing::Load(xml);
    FAIL() << "a duplicate descriptor must be rejected";
  } catch (const ExceptionType& e) {
    EXPECT_EQ(e.GetMessage().GetText(), "Duplicate object: 'A' at line 3 in file test.xml");
  }
}

TEST(XmlFramework, ElementsOutOfOrderAreNotRead) {
  testing::QuietLog quiet;
  EXPECT_THROW(testing::Load(testing::ContextXml("<Operators/><InputTuples/>")), ExceptionType);
  EXPECT_THROW(testing::Load(testing::ContextXml("<Bogus/>")), ExceptionType);
  EXPECT_THROW(testing::Load("<ExpressionContext/><Extra/>"), ExceptionType);
  EXPECT_THROW(testing::Load(""), ExceptionType);
}

// ---- memory and serialisation ----

TEST(Memory, ContainersAreAccounted) {
  const VxMemoryUsage before = VxMemoryGetUsage();
  {
    VxMemoryVector<int64_t> v(1000);
    const VxMemoryUsage during = VxMemoryGetUsage();
    EXPECT_GE(during.bytes_in_use - before.bytes_in_use, 8000);
    EXPECT_GT(during.allocations, before.allocations);
  }
  EXPECT_EQ(VxMemoryGetUsage().bytes_in_use, before.bytes_in_use);
}

TEST(TupleSerialisation, BodyRoundTripsAndRejectsDamage) {
  Ptr<CpxTupleDescriptor> td = MakePtr<CpxTupleDescriptor>("T");
  const CpxFieldKind kinds[] = {CpxFieldKind::Boolean, CpxFieldKind::Integer, CpxFieldKind::Float,
                                CpxFieldKind::String,  CpxFieldKind::Blob,    CpxFieldKind::Time};
  for (size_t i = 0; i < std::size(kinds); ++i)
    td->AddField(MakePtr<CpxTupleField>("f" + std::to_string(i), kinds[i]));
  Ptr<CpxTuple> t = td->CreateDefaultTuple();
  ASSERT_TRUE(SetFieldFromText(*t, 0, "true"));
  ASSERT_TRUE(SetFieldFromText(*t, 1, "-5"));
  ASSERT_TRUE(SetFieldFromText(*t, 3, ""));  // empty string, not NULL
  ASSERT_TRUE(SetFieldFromText(*t, 4, "00FF10"));
  ASSERT_TRUE(SetFieldFromText(*t, 5, "2024-01-02 10:00:00"));
  std::vector<unsigned char> body(t->GetRequiredBufferSize());
  ASSERT_EQ(t->SerializeBody(body.data(), static_cast<uint32_t>(body.size())), body.size());
  EXPECT_EQ(body.size(), 2u + 5u + 1u + 5u + 8u + 9u);

  Ptr<CpxTuple> u = td->CreateDefaultTuple();
  ASSERT_TRUE(u->DeserializeBody(body.data(), static_cast<uint32_t>(body.size())));
  EXPECT_EQ(t->CompareFields(*u), 0);
  EXPECT_FALSE(u->HasFieldValue(2));
  EXPECT_TRUE(u->HasFieldValue(3));

  EXPECT_FALSE(u->DeserializeBody(body.data(), static_cast<uint32_t>(body.size() - 1)));
  body.push_back(0);
  EXPECT_FALSE(u->DeserializeBody(body.data(), static_cast<uint32_t>(body.size())));
}

TEST(TupleContainers, HashSetCountsMembersByKey) {
  Ptr<CpxTupleDescriptor> td = MakePtr<CpxTupleDescriptor>("T");
  td->AddField(MakePtr<CpxTupleField>("k", CpxFieldKind::String));
  td->AddField(MakePtr<CpxTupleField>("v", CpxFieldKind::Integer));
  CpxTupleKey_Engine key;
  key.SetDescriptorName("T");
  key.AddField("k", false);
  key.Bind(td.Get());
  auto row = [&](const char* k, int v) {
    Ptr<CpxTuple> t = td->CreateDefaultTuple();
    CpxTupleField_String::SetValue(*t, 0, k);
    CpxTupleField_Integer::SetValue(*t, 1, v);
    return t;
  };
  CpxTuple_HashSetWithSize_Engine set(&key);
  set.Insert(row("a", 1));
  set.Insert(row("a", 2));  // same key, other value: still a member
  set.Insert(row("b", 3));
  EXPECT_EQ(set.GetSize(), 3u);
  EXPECT_EQ(set.Count(*row("a", 0)), 2u);
  EXPECT_TRUE(set.EraseOne(*row("a", 9)));
  EXPECT_FALSE(set.EraseOne(*row("c", 9)));
  EXPECT_EQ(set.GetSize(), 2u);

  VxMemoryMultiSet<CpxStoredTuple, Less_CpxStoredTuple_ByValue_WithKey> ordered(
      Less_CpxStoredTuple_ByValue_WithKey{&key});
  ordered.insert({row("b", 1), 1});
  ordered.insert({row("a", 1), 2});
  ordered.insert({row("a", 2), 3});
  std::string order;
  for (const CpxStoredTuple& s : ordered) order += CpxTupleField_String::GetView(s.tuple, 0);
  EXPECT_EQ(order, "aab");
  EXPECT_EQ(ordered.begin()->sequence, 2u);  // equal keys keep arrival order
}

}  // namespace
}  // namespace vx
