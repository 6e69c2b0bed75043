// XmlDomForest: canonical text, ownership, the bounds on hostile input,
// XPath and XSLT refusals, and the per-thread routing of libxml2.
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "support/tuple.h"
#include "support/xml_dom_forest.h"

namespace vx {
namespace {

namespace fs = std::filesystem;
using Fault = XmlDomLog::Fault;

// Restores the process-wide limits that a test lowers.
class XmlForest : public ::testing::Test {
 protected:
  void SetUp() override { m_saved = GetXmlLimits(); }
  void TearDown() override { SetXmlLimits(m_saved); }
  XmlLimits m_saved;
};

// The text a value reads to and writes back, or the fault of reading it.
struct ReadResult {
  bool ok;
  std::string text;
  Fault fault;
  std::string reason;
};
ReadResult ReadBack(std::string_view input) {
  XmlDomForest forest;
  XmlDomLog log;
  ReadResult r{forest.Read(input, log), "", log.GetFault(), log.GetText()};
  if (r.ok) {
    EXPECT_TRUE(forest.ToString(r.text, log)) << log.GetText();
  }
  return r;
}

TEST_F(XmlForest, TextReadsToItsCanonicalForm) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"<a x='1'  y=\"2\" ></a>", "<a x=\"1\" y=\"2\"/>"},
      {"<a><![CDATA[<&>]]></a>", "<a>&lt;&amp;&gt;</a>"},
      {"<a t=\"&#9;&#10;&#13;&lt;&quot;'\">&#65;&#13;&gt;\"'</a>",
       "<a t=\"&#9;&#10;&#13;&lt;&quot;'\">A&#13;&gt;\"'</a>"},
      {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xE9</a>", "<a>\xC3\xA9</a>"},
      {"\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<a/>\n", "<a/>"},
      {" <a/>\n\t<b/> t <c/> ", "<a/><b/> t <c/>"},
      {"<!-- c --><?pi x?><!DOCTYPE a [<!ENTITY e 'v'>]><a>&e;</a>", "<!-- c --><?pi x?><a>v</a>"},
      {"<!DOCTYPE a [<!ENTITY e 'x&amp;<b>y</b>'><!ENTITY f '&e;-&e;'>]><a>&f;</a>",
       "<a>x&amp;<b>y</b>-x&amp;<b>y</b></a>"},
      {"<!DOCTYPE a [<!ENTITY e 'v&#38;#38;w'><!ENTITY f '&e;&e;'>]><a q='&f;'/>",
       "<a q=\"v&amp;wv&amp;w\"/>"},
      {"<!DOCTYPE a [<!ATTLIST a d CDATA 'default'>]><a/>", "<a/>"},
      {"<!DOCTYPE a [<!ATTLIST a i ID #IMPLIED>]><a i='x'><b xml:id='y'/></a>",
       "<a i=\"x\"><b xml:id=\"y\"/></a>"},
      {"<p:a xmlns:p='urn:p' xmlns='urn:d'><b/></p:a>",
       "<p:a xmlns:p=\"urn:p\" xmlns=\"urn:d\"><b/></p:a>"},
      {"", ""},
      {"just text", "just text"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in);
    const ReadResult first = ReadBack(c.in);
    ASSERT_TRUE(first.ok) << first.reason;
    EXPECT_EQ(first.text, c.out);
    // The canonical text is a fixed point.
    EXPECT_EQ(ReadBack(first.text).text, first.text);
  }
}

TEST_F(XmlForest, TextThatIsNotXmlIsMalformed) {
  for (std::string_view bad : {"<a>", "a & b", "<a/></b>", "<a x='1' x='2'/>", "<a>\xC3</a>",
                               "</vx-forest><x/><vx-forest>", "<?xml version='1.0'?><a/><b/>",
                               "<a/><?xml version='1.0'?>"}) {
    SCOPED_TRACE(bad);
    const ReadResult r = ReadBack(bad);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.fault, Fault::kMalformed);
    EXPECT_FALSE(r.reason.empty());
  }
}

TEST_F(XmlForest, HostileDocumentsAreRefusedWithTheirReason) {
  XmlLimits limits = GetXmlLimits();
  limits.max_depth = 4;
  limits.max_entity_expansion_bytes = 100;
  limits.max_document_bytes = 1000;
  SetXmlLimits(limits);
  const std::string secret = fs::absolute("xml_forest_secret.txt").string();
  {
    FILE* f = std::fopen(secret.c_str(), "w");
    std::fputs("SECRET-CONTENT", f);
    std::fclose(f);
  }
  const struct {
    std::string in;
    Fault fault;
    std::string reason_part;
  } cases[] = {
      {"<!DOCTYPE r [<!ENTITY s SYSTEM 'file://" + secret + "'>]><r>&s;</r>", Fault::kRefused,
       "external or undeclared entity 's'"},
      {"<!DOCTYPE r [<!ENTITY s SYSTEM '" + secret + "'>]><r a='&s;'/>", Fault::kMalformed,
       "external entity"},
      {"<!DOCTYPE r SYSTEM '" + secret + "'><r>&s;</r>", Fault::kRefused, "entity 's'"},
      {"<!DOCTYPE r [<!ENTITY e '" + std::string(60, 'x') + "'>]><r>&e;&e;</r>", Fault::kRefused,
       "expand to more than 100 bytes"},
      {"<!DOCTYPE r [<!ENTITY e ''>]><r>&e;&e;&e;&e;&e;&e;&e;</r>", Fault::kRefused,
       "expand to more than 100 bytes"},
      {"<a><a><a><a><a/></a></a></a></a>", Fault::kRefused, "deeper than 4 levels"},
      {"<!DOCTYPE r [<!ENTITY e '<a><a><a/></a></a>'>]><r><a>&e;</a></r>", Fault::kRefused,
       "deeper than 4 levels"},
      {"<r>" + std::string(1000, 'x') + "</r>", Fault::kRefused, "more than the limit of 1000"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in.substr(0, 80));
    const ReadResult r = ReadBack(c.in);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.fault, c.fault);
    EXPECT_NE(r.reason.find(c.reason_part), std::string::npos) << r.reason;
    EXPECT_EQ(r.reason.find("SECRET-CONTENT"), std::string::npos);
  }
  // At the bounds themselves the value is accepted.
  EXPECT_TRUE(ReadBack("<a><a><a><a/></a></a></a>").ok);
  EXPECT_TRUE(ReadBack("<!DOCTYPE r [<!ENTITY e '" + std::string(60, 'x') + "'>]><r>&e;</r>").ok);
  fs::remove(secret);
}

TEST_F(XmlForest, ForestOwnsOrViewsItsDocument) {
  xmlDocPtr doc = xmlReadMemory("<a/>", 4, nullptr, nullptr, 0);
  {
    XmlDomForest view(doc, false);
    EXPECT_FALSE(view.IsDocOwner());
    EXPECT_EQ(view.GetTopElementsCount(), 1u);
  }  // a view leaves the document alone
  XmlDomForest owner(doc, true);
  XmlDomForest moved(std::move(owner));
  EXPECT_EQ(owner.Get(), nullptr);
  EXPECT_TRUE(moved.IsDocOwner());
  xmlDocPtr released = nullptr;
  EXPECT_TRUE(moved.Release(&released));
  EXPECT_EQ(released, doc);
  EXPECT_EQ(moved.Get(), nullptr);
  EXPECT_FALSE(moved.Release());
  moved.Set(released, true);  // frees it when destroyed
  XmlDomLog log;
  std::string text;
  EXPECT_TRUE(moved.ToString(text, log));
  EXPECT_EQ(text, "<a/>");
}

TEST_F(XmlForest, TopElementsOfAForest) {
  XmlDomForest f;
  XmlDomLog log;
  ASSERT_TRUE(f.Read("<a/>t<!--c--><b/>", log));
  EXPECT_EQ(f.GetTopElementsCount(), 4u);
  EXPECT_STREQ(reinterpret_cast<const char*>(f.GetTopElement(3)->name), "b");
  EXPECT_EQ(f.GetTopElement(4), nullptr);
  EXPECT_FALSE(f.HasExactlyOneTopElement());
  // One element, with only comments and processing instructions beside it.
  ASSERT_TRUE(f.Read("<!-- c --><!DOCTYPE a><a/><?p?>", log));
  EXPECT_TRUE(f.HasExactlyOneTopElement());
  EXPECT_STREQ(reinterpret_cast<const char*>(f.GetSingleTopElement()->name), "a");
  for (const char* other : {"text", "<a/>t", "", "<!--c-->"}) {
    ASSERT_TRUE(f.Read(other, log));
    EXPECT_FALSE(f.HasExactlyOneTopElement()) << other;
    EXPECT_EQ(f.GetSingleTopElement(), nullptr);
  }
}

TEST_F(XmlForest, EqualValuesHashAlike) {
  XmlDomForest a, b, c;
  XmlDomLog log;
  ASSERT_TRUE(a.Read("<a x='1'></a>", log));
  ASSERT_TRUE(b.Read("<?xml version='1.0'?>\n<a x=\"1\"/>", log));
  ASSERT_TRUE(c.Read("<a x='2'/>", log));
  EXPECT_EQ(a.Hash(), b.Hash());
  EXPECT_NE(a.Hash(), c.Hash());
  EXPECT_EQ(XmlDomForest().Hash(), 0u);
}

TEST_F(XmlForest, MovingTakesNodesOutOfTheSource) {
  XmlDomLog log;
  for (bool copy : {true, false}) {
    SCOPED_TRACE(copy);
    XmlDomForest source, target;
    ASSERT_TRUE(source.Read("<r xmlns='urn:d'><b><b/></b><c/></r>", log));
    ASSERT_TRUE(target.AddAsTopElementsFromXPath(source, "//*[local-name()='b']", log, copy));
    std::string moved, left;
    target.ToString(moved, log);
    source.ToString(left, log);
    EXPECT_EQ(moved, "<b xmlns=\"urn:d\"><b/></b><b xmlns=\"urn:d\"/>");
    EXPECT_EQ(left, copy ? "<r xmlns=\"urn:d\"><b><b/></b><c/></r>" : "<r xmlns=\"urn:d\"><c/></r>");

    XmlDomForest more;
    ASSERT_TRUE(more.Read("<p:x xmlns:p='urn:p'/>y", log));
    target.AddAsTopElements(more, copy);
    std::string all;
    target.ToString(all, log);
    EXPECT_EQ(all, moved + "<p:x xmlns:p=\"urn:p\"/>y");
    EXPECT_EQ(more.GetTopElementsCount(), copy ? 2u : 0u);
  }
}

TEST_F(XmlForest, XPathFromAStartNode) {
  xmlDocPtr doc = xmlReadMemory("<r><i n='1'><v>a</v></i><i n='2'><v>b</v></i></r>", 49,
                                nullptr, nullptr, 0);
  ASSERT_NE(doc, nullptr);
  xmlNodePtr root = xmlDocGetRootElement(doc);
  xmlNodePtr second = root->children->next;
  XmlDomLog log;
  xmlChar* v = XmlDomForest::ExecuteXPathForFirstStringWithStartNode(root, second, "v", log);
  EXPECT_STREQ(reinterpret_cast<const char*>(v), "b");
  xmlFree(v);
  EXPECT_TRUE(XmlDomForest::ExecuteXPathForOneMatchWithStartNode(root, second, "@n = 2", log));
  EXPECT_FALSE(XmlDomForest::ExecuteXPathForOneMatchWithStartNode(root, second, "preceding::x", log));
  XmlDomForest out;
  EXPECT_TRUE(out.AddAsTopElementsFromXPathWithStartNode(root, second, "../i[1]/v", log));
  std::string text;
  out.ToString(text, log);
  EXPECT_EQ(text, "<v>a</v>");
  EXPECT_FALSE(log.Failed());
  xmlFreeDoc(doc);
}

TEST_F(XmlForest, XPathStopsAtItsBounds) {
  std::string big = "<r>";
  for (int i = 0; i < 2000; ++i) big += "<a>" + std::string(50, 'x') + "</a>";
  big += "</r>";
  XmlDomForest f;
  XmlDomLog log;
  ASSERT_TRUE(f.Read(big, log));
  XmlLimits limits = GetXmlLimits();
  limits.max_xpath_operations = 100'000;
  SetXmlLimits(limits);
  XmlDomLog ops;
  EXPECT_FALSE(f.ExecuteXPathForOneMatch("count(//a[count(//a) > 1]) > 0", ops));
  EXPECT_EQ(ops.GetFault(), Fault::kLimit);
  EXPECT_NE(ops.GetText().find("100000 XPath operations"), std::string::npos) << ops.GetText();

  limits.max_xpath_operations = 10'000'000;
  limits.max_work_memory_bytes = 1 << 20;
  SetXmlLimits(limits);
  std::string bomb = "concat(string(/)";
  for (int i = 0; i < 40; ++i) bomb += ", string(/)";
  bomb += ")";
  XmlDomLog memory;
  EXPECT_EQ(f.ExecuteXPathForFirstString(bomb.c_str(), memory), nullptr);
  EXPECT_EQ(memory.GetFault(), Fault::kLimit);
  EXPECT_NE(memory.GetText().find("1048576 bytes of memory"), std::string::npos) << memory.GetText();

  // The same forest still evaluates what fits.
  XmlDomLog fine;
  xmlChar* n = f.ExecuteXPathForFirstString("count(//a)", fine);
  EXPECT_STREQ(reinterpret_cast<const char*>(n), "2000");
  xmlFree(n);
  EXPECT_FALSE(fine.Failed());
}

TEST_F(XmlForest, InvalidXPathIsReported) {
  XmlDomForest f;
  XmlDomLog log;
  ASSERT_TRUE(f.Read("<a/>", log));
  for (const char* xpath : {"//a[", "q:a", "nosuch()", "$undefined", ""}) {
    SCOPED_TRACE(xpath);
    XmlDomLog l;
    EXPECT_FALSE(f.ExecuteXPathForOneMatch(xpath, l));
    EXPECT_EQ(l.GetFault(), Fault::kInvalidXPath);
    EXPECT_FALSE(l.GetText().empty());
  }
}

std::string Transform(const std::string& source, const std::string& stylesheet, XmlDomLog& log) {
  XmlDomForest in, style, out;
  XmlDomLog read;
  EXPECT_TRUE(in.Read(source, read)) << read.GetText();
  EXPECT_TRUE(style.Read(stylesheet, read)) << read.GetText();
  std::string text;
  if (out.AddAsTopElementsFromXslt(in, style, log)) out.ToString(text, log);
  return text;
}

constexpr char kXsl[] =
    "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform' "
    "xmlns:exsl='http://exslt.org/common' extension-element-prefixes='exsl'>";

TEST_F(XmlForest, StylesheetsCannotReachFilesOrTheNetwork) {
  const fs::path dir = fs::temp_directory_path() / ("vx_xslt_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const std::string secret = (dir / "secret.xml").string();
  {
    FILE* f = std::fopen(secret.c_str(), "w");
    std::fputs("<s>SECRET-CONTENT</s>", f);
    std::fclose(f);
  }
  const std::string written = (dir / "written.txt").string();
  const std::string made = (dir / "made" / "written.txt").string();
  const struct {
    std::string body;
    Fault fault;
    std::string reason_part;
  } cases[] = {
      {"<xsl:template match='/'><o><xsl:copy-of select=\"document('" + secret + "')\"/></o></xsl:template>",
       Fault::kRefused, "may not read the file \"" + secret + "\""},
      {"<xsl:template match='/'><o><xsl:copy-of select=\"document('http://127.0.0.1:9/x')\"/></o></xsl:template>",
       Fault::kRefused, "may not read from \"http://127.0.0.1:9/x\""},
      {"<xsl:include href='" + secret + "'/>", Fault::kRefused, "may not include or import"},
      {"<xsl:import href='" + secret + "'/>", Fault::kRefused, "may not include or import"},
      {"<xsl:template match='/'><exsl:document href='" + written + "' method='text'>x</exsl:document><o/></xsl:template>",
       Fault::kRefused, "may not write the file"},
      {"<xsl:template match='/'><exsl:document href='" + made + "' method='text'>x</exsl:document><o/></xsl:template>",
       Fault::kRefused, "may not"},
      {"<xsl:template match='/'><xsl:call-template name='t'/></xsl:template><xsl:template name='t'><xsl:call-template name='t'/></xsl:template>",
       Fault::kTransform, "infinite template recursion"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body.substr(0, 90));
    XmlDomLog log;
    EXPECT_EQ(Transform("<r/>", kXsl + c.body + "</xsl:stylesheet>", log), "");
    EXPECT_EQ(log.GetFault(), c.fault);
    EXPECT_NE(log.GetText().find(c.reason_part), std::string::npos) << log.GetText();
    EXPECT_EQ(log.GetText().find("SECRET-CONTENT"), std::string::npos);
  }
  EXPECT_FALSE(fs::exists(written));
  EXPECT_FALSE(fs::exists(dir / "made"));
  fs::remove_all(dir);
}

TEST_F(XmlForest, StylesheetWorkIsBounded) {
  XmlLimits limits = GetXmlLimits();
  limits.max_xpath_operations = 200'000;
  limits.max_work_memory_bytes = 4 << 20;
  SetXmlLimits(limits);
  std::string doubling = "<xsl:template match='/'><xsl:variable name='v0' select=\"'xxxxxxxx'\"/>";
  for (int i = 1; i < 40; ++i)
    doubling += "<xsl:variable name='v" + std::to_string(i) + "' select='concat($v" +
                std::to_string(i - 1) + ", $v" + std::to_string(i - 1) + ")'/>";
  doubling += "<o><xsl:value-of select='string-length($v39)'/></o></xsl:template>";
  XmlDomLog memory;
  EXPECT_EQ(Transform("<r/>", kXsl + doubling + "</xsl:stylesheet>", memory), "");
  EXPECT_EQ(memory.GetFault(), Fault::kLimit);
  EXPECT_NE(memory.GetText().find("bytes of memory"), std::string::npos) << memory.GetText();

  const std::string calls =
      "<xsl:template name='t'><xsl:param name='n'/><xsl:if test='$n &gt; 0'>"
      "<xsl:call-template name='t'><xsl:with-param name='n' select='$n - 1'/></xsl:call-template>"
      "<xsl:call-template name='t'><xsl:with-param name='n' select='$n - 1'/></xsl:call-template>"
      "</xsl:if></xsl:template><xsl:template match='/'><o><xsl:call-template name='t'>"
      "<xsl:with-param name='n' select='40'/></xsl:call-template></o></xsl:template>";
  XmlDomLog ops;
  EXPECT_EQ(Transform("<r/>", kXsl + calls + "</xsl:stylesheet>", ops), "");
  EXPECT_EQ(ops.GetFault(), Fault::kLimit);
  EXPECT_NE(ops.GetText().find("XPath operations"), std::string::npos) << ops.GetText();

  XmlDomLog fine;
  EXPECT_EQ(Transform("<r>1</r>", std::string(kXsl) +
                                      "<xsl:template match='/'><o><xsl:value-of select='r'/></o>"
                                      "</xsl:template></xsl:stylesheet>",
                      fine),
            "<o>1</o>");
}

TEST_F(XmlForest, CompiledStylesheetServesManyTransformations) {
  XmlDomForest style;
  XmlDomLog log;
  ASSERT_TRUE(style.Read(std::string(kXsl) +
                             "<xsl:template match='/'><n><xsl:value-of select='count(//i)'/></n>"
                             "</xsl:template></xsl:stylesheet>",
                         log));
  XmlXsltStylesheet compiled;
  ASSERT_TRUE(compiled.Compile(style, log)) << log.GetText();
  for (int n = 0; n < 3; ++n) {
    XmlDomForest in, out;
    ASSERT_TRUE(in.Read("<r>" + std::string() + (n > 0 ? "<i/>" : "") + (n > 1 ? "<i/>" : "") + "</r>", log));
    ASSERT_TRUE(out.AddAsTopElementsFromXslt(in, compiled, log)) << log.GetText();
    std::string text;
    out.ToString(text, log);
    EXPECT_EQ(text, "<n>" + std::to_string(n) + "</n>");
  }
  XmlDomForest two;
  ASSERT_TRUE(two.Read("<a/><b/>", log));
  XmlDomLog refused;
  EXPECT_FALSE(compiled.Compile(two, refused));
  EXPECT_FALSE(compiled.IsCompiled());
  EXPECT_EQ(refused.GetFault(), Fault::kTransform);
}

// Errors, refusals and memory budgets belong to the thread whose operation
// caused them: a failing thread never taints another's result.
TEST_F(XmlForest, ThreadsKeepTheirOwnDiagnostics) {
  XmlLimits limits = GetXmlLimits();
  limits.max_work_memory_bytes = 1 << 20;
  SetXmlLimits(limits);
  std::atomic<int> wrong{0};
  auto failing = [&] {
    XmlDomForest f;
    XmlDomLog log;
    f.Read("<r>" + std::string(20000, 'x') + "</r>", log);
    for (int i = 0; i < 40; ++i) {
      XmlDomLog l;
      xmlFree(f.ExecuteXPathForFirstString(
          "concat(/r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r,"
          " /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r,"
          " /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r, /r)",
          l));
      if (l.GetFault() != Fault::kLimit) ++wrong;
      if (ReadBack("<a><b></a>").ok) ++wrong;
    }
  };
  auto succeeding = [&] {
    for (int i = 0; i < 200; ++i) {
      XmlDomForest f;
      XmlDomLog log;
      if (!f.Read("<r><i>" + std::to_string(i) + "</i></r>", log)) ++wrong;
      xmlChar* v = f.ExecuteXPathForFirstString("concat(/r/i, /r/i)", log);
      if (!v || std::string(reinterpret_cast<const char*>(v)) != std::to_string(i) + std::to_string(i))
        ++wrong;
      xmlFree(v);
      if (log.Failed()) ++wrong;
    }
  };
  std::thread a(failing), b(succeeding), c(succeeding);
  a.join();
  b.join();
  c.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(XmlForest, XmlFieldConversions) {
  Ptr<CpxTupleDescriptor> td = MakePtr<CpxTupleDescriptor>("T");
  td->AddField(MakePtr<CpxTupleField>("x", CpxFieldKind::Xml));
  Ptr<CpxTuple> t = td->CreateDefaultTuple();
  // Text forms read as values are stored canonically; text that is not XML
  // is not an xml value.
  EXPECT_TRUE(SetFieldFromText(*t, 0, "<a  b='1'></a>"));
  EXPECT_EQ(CpxTupleField_Xml::GetView(t.Get(), 0), "<a b=\"1\"/>");
  EXPECT_FALSE(SetFieldFromText(*t, 0, "<a>"));
  EXPECT_EQ(CpxTupleField_Xml::GetView(t.Get(), 0), "<a b=\"1\"/>");

  XmlDomForest f;
  XmlDomLog log;
  ASSERT_TRUE(CpxTupleField_Xml::GetValue(t.Get(), 0, f, log));
  f.AddTopElement("c", "urn:c", "p", &log);
  ASSERT_TRUE(CpxTupleField_Xml::SetValue(*t, 0, std::move(f), log));
  EXPECT_EQ(f.Get(), nullptr);  // the document went into the field and was freed
  EXPECT_EQ(CpxTupleField_Xml::GetView(t.Get(), 0), "<a b=\"1\"/><p:c xmlns:p=\"urn:c\"/>");

  // Bytes put into the field by other means are read with every bound.
  const std::string hostile = "<!DOCTYPE r [<!ENTITY s SYSTEM '/etc/passwd'>]><r>&s;</r>";
  CpxTupleField_Xml::SetValue(*t, 0, std::string_view(hostile));
  XmlDomForest g;
  XmlDomLog refused;
  EXPECT_FALSE(CpxTupleField_Xml::GetValue(t.Get(), 0, g, refused));
  EXPECT_EQ(refused.GetFault(), Fault::kRefused);
}

}  // namespace
}  // namespace vx
