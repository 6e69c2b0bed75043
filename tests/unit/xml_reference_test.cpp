// The XML operators against libxml2's own command-line tools: string
// values and selected nodes against `xmllint --xpath`, transformations
// against `xsltproc`, over the documents and stylesheets of
// tests/xml_reference. The tools are build dependencies
// (scripts/install-deps.sh); a missing tool fails the test.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Op;
using testing::Ref;

const std::string kDir = std::string(VX_SOURCE_DIR) + "/tests/xml_reference/";

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Quoted(const std::string& arg) {
  std::string out = "'";
  for (char c : arg) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Standard output of a shell command; the exit status must be 0 unless
// `any_status`.
std::string Command(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen((command + " 2>/dev/null").c_str(), "r");
  if (!pipe) return "(popen failed)";
  std::array<char, 4096> buffer;
  size_t n;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) out.append(buffer.data(), n);
  const int status = ::pclose(pipe);
  EXPECT_EQ(status, 0) << command;
  return out;
}

std::string WithoutTrailingNewlines(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

std::string Xmllint(const std::string& file, const std::string& xpath) {
  return WithoutTrailingNewlines(
      Command("xmllint --noent --nonet --xpath " + Quoted(xpath) + " " + Quoted(kDir + file)));
}

// XmlExtractValue, XmlExtract and XmlTransform over one document.
class Engine {
 public:
  explicit Engine(const std::string& file) {
    const std::string descriptors =
        "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"x\" Type=\"xml\"/>"
        "<Field Name=\"p\" Type=\"string\"/><Field Name=\"s\" Type=\"xml\"/></TupleDescriptor>"
        "</InputTuples><OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"v\" "
        "Type=\"string\"/><Field Name=\"n\" Type=\"xml\"/><Field Name=\"t\" Type=\"xml\"/>"
        "</TupleDescriptor></OutputTuples>";
    const std::string xp = Ref("Input", "In", "x") + Ref("Input", "In", "p");
    m_ctx = testing::Load(ContextXml(
        descriptors + "<Operators>" + Op("v", "XmlExtractValue", xp, Ref("Output", "Out", "v")) +
        Op("n", "XmlExtract", xp, Ref("Output", "Out", "n")) +
        Op("t", "XmlTransform", Ref("Input", "In", "x") + Ref("Input", "In", "s"),
           Ref("Output", "Out", "t")) +
        "</Operators>"));
    m_ctx->InitializeEvaluators();
    m_row = m_ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    EXPECT_TRUE(SetFieldFromText(*m_row, 0, Slurp(kDir + file))) << file;
  }
  // The string value of `xpath` ("" for NULL) and the selected nodes' text.
  std::pair<std::string, std::string> Query(const std::string& xpath) {
    CpxTupleField_String::SetValue(*m_row, 1, xpath);
    m_row->ClearFieldValue(2);
    const CpxTuple& out = Run();
    return {out.HasFieldValue(0) ? CpxTupleField_String::GetValue(&out, 0) : "",
            std::string(CpxTupleField_Xml::GetView(&out, 1))};
  }
  std::string Transform(const std::string& stylesheet_file) {
    CpxTupleField_String::SetValue(*m_row, 1, std::string_view("/"));
    EXPECT_TRUE(SetFieldFromText(*m_row, 2, Slurp(kDir + stylesheet_file)));
    const CpxTuple& out = Run();
    EXPECT_TRUE(out.HasFieldValue(2)) << stylesheet_file;
    return std::string(CpxTupleField_Xml::GetView(&out, 2));
  }

 private:
  const CpxTuple& Run() {
    CpxTuplesList_Vector inputs;
    inputs.Add(m_row);
    m_ev = m_ctx->GetEvaluator(*m_row);
    m_ev->Reset();
    m_ev->Execute(0, &inputs);
    return *m_ev->GetOutputTuples()->GetObjectByPos(0);
  }

  Ptr<CpxExpressionContext_Engine> m_ctx;
  Ptr<CpxExpressionEvaluator_Engine> m_ev;
  Ptr<CpxTuple> m_row;
};

struct Sample {
  const char* file;
  std::vector<std::string> string_xpaths;  // compared as string(...)
  std::vector<std::string> node_xpaths;    // compared node by node
};

const Sample kSamples[] = {
    {"catalog.xml",
     {"/catalog/@updated", "//book[2]/title", "//book[@lang='en'][last()]/title",
      "count(//author)", "sum(//price)", "sum(//price) div count(//book)", "//note",
      "normalize-space(//book[1])", "//book[price > 20]/@id", "string-length(//book[3]/title)",
      "//comment()", "//processing-instruction('review')", "//book[not(tags/tag)]/@id",
      "concat(//author[1]/last, '-', //author[last()]/first)", "//missing",
      "boolean(//book[@year > 2015])", "substring-after(/catalog/@updated, '-')",
      "//book[@id='b2']/following-sibling::book/@id", "//tag[. = 'systems']/ancestor::book/@year",
      "name(//*[tag][1])", "translate(//book[2]/author[1]/last, 'ß', 's')"},
     {"//title", "//author", "//book[2]", "//book[1]/note", "//comment()",
      "//processing-instruction()", "//tag/text()", "//tags[not(*)]"}},
    {"orders.xml",
     {"sum(//item/@qty)", "//order[item/@sku='C3']/@customer", "count(//order[@customer='c7']/item)",
      "//item[@qty * @price > 5]/@sku", "round(sum(//item/@price) * 100) div 100",
      "sum(//item[@sku='B7']/@qty) * 4 - 0.5"},
     {"//order[2]", "//item[@sku='B7']", "/orders/order[last()]/item[1]"}},
};

TEST(XmlReference, StringValuesMatchXmllint) {
  for (const Sample& sample : kSamples) {
    Engine engine(sample.file);
    for (const std::string& xpath : sample.string_xpaths) {
      SCOPED_TRACE(std::string(sample.file) + ": " + xpath);
      EXPECT_EQ(engine.Query(xpath).first, Xmllint(sample.file, "string(" + xpath + ")"));
    }
  }
}

TEST(XmlReference, SelectedNodesMatchXmllint) {
  for (const Sample& sample : kSamples) {
    Engine engine(sample.file);
    for (const std::string& xpath : sample.node_xpaths) {
      const int count = std::stoi(Xmllint(sample.file, "count(" + xpath + ")"));
      ASSERT_GT(count, 0) << xpath;
      std::string all;
      for (int i = 1; i <= count; ++i) {
        const std::string nth = "(" + xpath + ")[" + std::to_string(i) + "]";
        SCOPED_TRACE(std::string(sample.file) + ": " + nth);
        const std::string expected = Xmllint(sample.file, nth);
        EXPECT_EQ(engine.Query(nth).second, expected);
        all += expected;
      }
      // Together: the nodes one after another (adjacent text nodes join).
      EXPECT_EQ(engine.Query(xpath).second, all) << xpath;
    }
  }
}

TEST(XmlReference, TransformationsMatchXsltproc) {
  const std::pair<const char*, const char*> cases[] = {
      {"catalog.xml", "catalog_summary.xsl"},
      {"catalog.xml", "catalog_trim.xsl"},
      {"orders.xml", "orders_by_customer.xsl"},
      {"orders.xml", "orders_text.xsl"},
  };
  for (const auto& [doc, stylesheet] : cases) {
    SCOPED_TRACE(std::string(stylesheet) + " over " + doc);
    Engine engine(doc);
    const std::string expected = WithoutTrailingNewlines(Command(
        "xsltproc --nonet --novalid " + Quoted(kDir + stylesheet) + " " + Quoted(kDir + doc)));
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(WithoutTrailingNewlines(engine.Transform(stylesheet)), expected);
  }
}

}  // namespace
}  // namespace vx
