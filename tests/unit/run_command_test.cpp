// Tests of `cpxrun run`: rows in, output tuples out, in JSON Lines and CSV,
// and the one-line errors for bad rows and bad setups.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_operator_registry.h"
#include "support/tuple.h"
#include "tests/unit/test_util.h"
// vx_unit_tests does not link the cpxrun sources, so the command is compiled
// into this test directly.
#include "tools/cpxrun/run_command.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::ordered_json;

// ---- building contexts ----

std::string XmlEscape(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

struct FieldDef {
  std::string name;
  std::string type;
  std::optional<std::string> default_text = {};
};

std::string Descriptor(const std::string& name, const std::vector<FieldDef>& fields) {
  std::string xml = "<TupleDescriptor Name=\"" + name + "\">";
  for (const FieldDef& f : fields) {
    xml += "<Field Name=\"" + f.name + "\" Type=\"" + f.type + "\"";
    if (f.default_text) xml += " Default=\"" + XmlEscape(*f.default_text) + "\"";
    xml += "/>";
  }
  return xml + "</TupleDescriptor>";
}

// "Input:In.a" -> a reference to field a of input tuple In.
std::string Refs(const std::vector<std::string>& refs) {
  std::string xml;
  for (const std::string& r : refs) {
    const size_t colon = r.find(':');
    const size_t dot = r.find('.', colon);
    xml +=
        vx::testing::Ref(r.substr(0, colon).c_str(), r.substr(colon + 1, dot - colon - 1).c_str(),
                         r.substr(dot + 1).c_str());
  }
  return xml;
}

struct OpDef {
  std::string name;
  std::string type;
  std::vector<std::string> inputs;   // "Input:In.a", "Output:Out.ts"
  std::vector<std::string> outputs;  // same form
};

std::string Context(const std::vector<std::string>& inputs, const std::vector<std::string>& outputs,
                    const std::vector<OpDef>& ops) {
  std::string body = "<InputTuples>";
  for (const std::string& d : inputs) body += d;
  body += "</InputTuples><OutputTuples>";
  for (const std::string& d : outputs) body += d;
  body += "</OutputTuples><Operators>";
  for (const OpDef& op : ops)
    body += vx::testing::Op(op.name.c_str(), op.type.c_str(), Refs(op.inputs), Refs(op.outputs));
  return vx::testing::ContextXml(body + "</Operators>");
}

// A default string with a comma and quotes, so CSV output must quote it.
const std::string kNote = "say \"hi\", then go";

const std::string kInDescriptor =
    Descriptor("In", {{"k", "string"}, {"a", "integer"}, {"b", "float"}, {"flag", "boolean"}});

// Drops rows whose flag is false; otherwise sum = a + a, b copied, has_k
// tells whether k is not NULL, ts is the row's timestamp, and Out takes the
// row's sign and timestamp.
std::string FilterContext() {
  return Context({kInDescriptor},
                 {Descriptor("Out", {{"sum", "integer"},
                                     {"b", "float"},
                                     {"has_k", "boolean"},
                                     {"note", "string", kNote},
                                     {"empty", "string", ""},
                                     {"ts", "time"}})},
                 {{"filter", "IfFalseStop", {"Input:In.flag"}, {}},
                  {"double", "AddInteger", {"Input:In.a", "Input:In.a"}, {"Output:Out.sum"}},
                  {"copy_b", "AddFloat", {"Input:In.b"}, {"Output:Out.b"}},
                  {"has_k", "IsDefined", {"Input:In.k"}, {"Output:Out.has_k"}},
                  {"get_ts", "GetTimestamp", {"Input:In.k"}, {"Output:Out.ts"}},
                  {"set_ts", "SetTimestamp", {"Output:Out.ts"}, {"Output:Out.sum"}},
                  {"sign", "CopyTupleType", {"Input:In.k"}, {"Output:Out.sum"}}});
}

// y = x for one float field.
std::string FloatContext() {
  return Context({Descriptor("In", {{"x", "float"}})}, {Descriptor("Out", {{"y", "float"}})},
                 {{"copy", "AddFloat", {"Input:In.x"}, {"Output:Out.y"}}});
}

// Two output descriptors: A.s = a + a, B.p = a * a.
std::string TwoOutputContext() {
  return Context({kInDescriptor},
                 {Descriptor("A", {{"s", "integer"}}), Descriptor("B", {{"p", "integer"}})},
                 {{"sum", "AddInteger", {"Input:In.a", "Input:In.a"}, {"Output:A.s"}},
                  {"product", "MultiplyInteger", {"Input:In.a", "Input:In.a"}, {"Output:B.p"}}});
}

// ---- running ----

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

class RunCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "cpxrun_run_XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr) << std::strerror(errno);
    m_dir = pattern;
  }
  void TearDown() override {
    std::error_code ec;
    if (!m_dir.empty()) fs::remove_all(m_dir, ec);
  }

  fs::path Path(const std::string& name) const { return m_dir / name; }

  // Runs `input` through `context`, output to a file that is read back.
  RunResult Run(const std::string& context, const std::string& input, const std::string& format,
                std::vector<std::string> group_by = {}) {
    cpxrun::RunOptions options;
    options.context_path = Path("context.xml").string();
    WriteFile(options.context_path, context);
    options.input = Path("input." + format).string();
    WriteFile(options.input, input);
    options.output = Path("output." + format).string();
    fs::remove(options.output);  // a run that fails early must leave none
    options.format = format;
    options.group_by = std::move(group_by);
    std::ostringstream err;
    RunResult result;
    result.status = cpxrun::RunCommand(options, err);
    result.out = ReadFile(options.output);
    result.err = err.str();
    return result;
  }

  std::string InputPath(const std::string& format) const {
    return Path("input." + format).string();
  }

  fs::path m_dir;
};

// ---- JSON Lines ----

// What a row of the filter context means, and the object it must produce.
struct FilterRow {
  Json input;  // the row as written
  std::optional<std::string> k;
  std::optional<int> a;
  std::optional<double> b;
  bool passes = true;
  bool negative = false;
  std::optional<std::string> ts = {};
};

Json ExpectedFilterOutput(const FilterRow& row) {
  Json out = Json::object();
  // Integer addition wraps around.
  out["sum"] =
      row.a ? Json(static_cast<int32_t>(2u * static_cast<uint32_t>(*row.a))) : Json(nullptr);
  out["b"] = row.b ? Json(*row.b) : Json(nullptr);
  out["has_k"] = row.k.has_value();
  out["note"] = kNote;
  out["empty"] = "";
  int64_t ts = 0;
  if (row.ts) {
    EXPECT_TRUE(vx::CpxTupleField_Time::FromString(ts, *row.ts)) << *row.ts;
  }
  out["ts"] = vx::CpxTupleField_Time::ToString(ts);
  if (row.negative) out["_sign"] = "-";
  if (row.ts) out["_ts"] = *row.ts;
  return out;
}

TEST_F(RunCommandTest, JsonLinesValuesNullsSignsAndFilteredRows) {
  const std::vector<FilterRow> rows = {
      {Json::parse(R"({"k":"x","a":2,"b":1.5,"flag":true})"), "x", 2, 1.5},
      {Json::parse(R"({"k":null,"a":null,"b":null,"flag":true})"), {}, {}, {}},
      {Json::parse(R"({"k":"drop","a":5,"b":2.0,"flag":false})"), "drop", 5, 2.0, false},
      // Text forms for every type, and a boolean given as 1.
      {Json::parse(R"({"a":"7","b":"-2.25","flag":"1"})"), {}, 7, -2.25},
      {Json::parse(R"({"k":"n","a":-3,"b":0.5,"flag":true,"_sign":"-",)"
                   R"("_ts":"2024-01-02 10:00:00.250000"})"),
       "n", -3, 0.5, true, true, "2024-01-02 10:00:00.250000"},
      // A whole float fits an integer field; a NULL flag does not stop.
      {Json::parse(R"({"a":4.0,"flag":null,"_sign":"+"})"), {}, 4, {}},
      // The sum of two minimum integers wraps.
      {Json::parse(R"({"k":"","a":-2147483648,"b":-1e-300,"flag":true})"), "",
       std::numeric_limits<int32_t>::min(), -1e-300},
  };
  std::string input;
  for (const FilterRow& row : rows) input += row.input.dump() + "\n\n";  // blank lines are skipped
  RunResult r = Run(FilterContext(), input, "jsonl");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");

  std::vector<Json> expected;
  for (const FilterRow& row : rows) {
    if (!row.passes) continue;
    expected.push_back(ExpectedFilterOutput(row));
  }
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), expected.size()) << r.out;
  for (size_t i = 0; i < lines.size(); ++i) {
    SCOPED_TRACE(lines[i]);
    const Json actual = Json::parse(lines[i]);
    // Ordered comparison: keys must come in descriptor order.
    EXPECT_EQ(actual.dump(), expected[i].dump());
    EXPECT_TRUE(actual["has_k"].is_boolean());
    if (!actual["sum"].is_null()) {
      EXPECT_TRUE(actual["sum"].is_number_integer());
    }
  }
}

// Only a stop drops a row: a jump past the end (or to a negative position)
// ends the run normally and the row's outputs are printed.
TEST_F(RunCommandTest, JumpPastTheEndIsNotAStop) {
  const std::string context =
      Context({Descriptor("In", {{"id", "integer"}, {"target", "integer"}, {"stop", "boolean"}})},
              {Descriptor("Out", {{"id", "integer"}})},
              {{"copy", "AddInteger", {"Input:In.id"}, {"Output:Out.id"}},
               {"jump", "Goto", {"Input:In.target"}, {}},
               {"halt", "IfTrueStop", {"Input:In.stop"}, {}}});
  RunResult r = Run(context,
                    "{\"id\":1,\"target\":7}\n{\"id\":2,\"target\":-1}\n"
                    "{\"id\":3,\"target\":2,\"stop\":true}\n{\"id\":4,\"target\":2}\n",
                    "jsonl");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "{\"id\":1}\n{\"id\":2}\n{\"id\":4}\n");
}

TEST_F(RunCommandTest, FloatsPrintSoTheyReadBackExactly) {
  const std::vector<double> values = {
      0.1, 1.0 / 3.0, 0.1 + 0.2, 5e-324, 1.7976931348623157e308, -0.0, 2.0, 123456.789e-20};
  std::string input;
  for (double v : values) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", v);
    input += Json{{"x", text}}.dump() + "\n";  // as text, independent of the JSON reader
  }
  RunResult r = Run(FloatContext(), input, "jsonl");
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), values.size()) << r.out;
  for (size_t i = 0; i < values.size(); ++i) {
    SCOPED_TRACE(lines[i]);
    const Json obj = Json::parse(lines[i]);
    ASSERT_TRUE(obj["y"].is_number_float());
    // Read the printed token with strtod, not with the JSON library.
    const std::string prefix = "{\"y\":";
    ASSERT_THAT(lines[i], StartsWith(prefix));
    const std::string token = lines[i].substr(prefix.size(), lines[i].size() - prefix.size() - 1);
    const double back = std::strtod(token.c_str(), nullptr);
    EXPECT_EQ(std::memcmp(&back, &values[i], sizeof back), 0) << token;
  }
  // The shortest form: 0.1 is not printed with 17 digits.
  EXPECT_EQ(lines[0], "{\"y\":0.1}");
}

TEST_F(RunCommandTest, NonFiniteFloatsAreTextAndJsonNumbersAreAccepted) {
  const std::vector<std::string> texts = {"nan", "inf", "-inf"};
  std::string input;
  for (const std::string& t : texts) input += Json{{"x", t}}.dump() + "\n";
  input += "{\"x\":0.1}\n{\"x\":-7}\n{\"x\":18446744073709551615}\n";
  RunResult r = Run(FloatContext(), input, "jsonl");
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), texts.size() + 3) << r.out;
  for (size_t i = 0; i < texts.size(); ++i) {
    const Json obj = Json::parse(lines[i]);
    ASSERT_TRUE(obj["y"].is_string()) << lines[i];
    double in = 0, out = 0;
    ASSERT_TRUE(vx::CpxTupleField_Float::FromString(in, texts[i]));
    ASSERT_TRUE(vx::CpxTupleField_Float::FromString(out, obj["y"].get<std::string>()));
    EXPECT_EQ(std::isnan(in), std::isnan(out)) << lines[i];
    if (!std::isnan(in)) {
      EXPECT_EQ(in, out) << lines[i];
    }
  }
  EXPECT_EQ(Json::parse(lines[3])["y"].get<double>(), 0.1);
  EXPECT_EQ(Json::parse(lines[4])["y"].get<double>(), -7.0);
  EXPECT_EQ(Json::parse(lines[5])["y"].get<double>(), 18446744073709551615.0);
}

TEST_F(RunCommandTest, SeveralOutputDescriptorsAreNamed) {
  const std::vector<int> as = {3, -4};
  std::string input;
  for (int a : as) input += Json{{"a", a}}.dump() + "\n";
  RunResult r = Run(TwoOutputContext(), input, "jsonl");
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 2 * as.size()) << r.out;
  for (size_t i = 0; i < as.size(); ++i) {
    Json a = Json::object(), b = Json::object();
    a["_tuple"] = "A";
    a["s"] = as[i] + as[i];
    b["_tuple"] = "B";
    b["p"] = as[i] * as[i];
    EXPECT_EQ(lines[2 * i], a.dump());
    EXPECT_EQ(lines[2 * i + 1], b.dump());
  }

  // CSV has one header, so it cannot carry two descriptors.
  RunResult csv = Run(TwoOutputContext(), "a\n1\n", "csv");
  EXPECT_EQ(csv.status, 1);
  EXPECT_THAT(csv.err, HasSubstr("exactly one output descriptor"));
  EXPECT_EQ(Lines(csv.err).size(), 1u) << csv.err;
}

TEST_F(RunCommandTest, GroupByRunsEveryRowAndChecksTheFields) {
  std::string input;
  for (int i = 0; i < 6; ++i)
    input += Json{{"k", i % 2 ? "odd" : "even"}, {"a", i}, {"flag", true}}.dump() + "\n";
  RunResult plain = Run(FilterContext(), input, "jsonl");
  RunResult grouped = Run(FilterContext(), input, "jsonl", {"k", "flag"});
  ASSERT_EQ(plain.status, 0) << plain.err;
  ASSERT_EQ(grouped.status, 0) << grouped.err;
  EXPECT_EQ(Lines(grouped.out).size(), 6u);
  EXPECT_EQ(grouped.out, plain.out);

  RunResult bad = Run(FilterContext(), input, "jsonl", {"k", "nope"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_THAT(bad.err, HasSubstr("'nope'"));
  EXPECT_THAT(bad.err, HasSubstr("In"));
  EXPECT_EQ(bad.out, "") << "no row may run with a bad key";
}

// ---- CSV ----

TEST_F(RunCommandTest, CsvQuotingNullsAndEmptyStrings) {
  // Columns in another order than the descriptor; quoted cells with commas,
  // doubled quotes and a line break; "" is an empty string, an empty cell NULL.
  const std::string input =
      "flag,k,a,b,_ts\r\n"
      "true,\"x,y\",2,0.1,\r\n"
      "\n"
      "true,\"\",3,,2024-05-06 07:08:09\n"
      "true,,4,,\n"
      "true,\"two\nlines \"\"q\"\"\",5,-1.5,\n"
      "false,z,6,,\n"
      "1,\"last\",7,,";
  RunResult r = Run(FilterContext(), input, "csv");
  ASSERT_EQ(r.status, 0) << r.err;

  const std::string epoch = vx::CpxTupleField_Time::ToString(0);
  // The note default holds a comma and quotes; the empty default is "".
  const std::string tail = ",\"say \"\"hi\"\", then go\",\"\",";
  const std::vector<std::string> expected = {
      "sum,b,has_k,note,empty,ts",
      std::to_string(2 * 2) + ",0.1,true" + tail + epoch,
      std::to_string(2 * 3) + ",,true" + tail + "2024-05-06 07:08:09",
      std::to_string(2 * 4) + ",,false" + tail + epoch,
      std::to_string(2 * 5) + ",-1.5,true" + tail + epoch,
      std::to_string(2 * 7) + ",,true" + tail + epoch,
  };
  EXPECT_EQ(Lines(r.out), expected) << r.out;
}

TEST_F(RunCommandTest, CsvOutputReadsBackAsCsvInput) {
  // The output of one run is the input of a second context whose input
  // descriptor has the first one's output fields: every value survives.
  const std::string first_input = "k,a,b,flag\n\"a,b\",21,0.1,true\n,-4,,true\n";
  RunResult first = Run(FilterContext(), first_input, "csv");
  ASSERT_EQ(first.status, 0) << first.err;

  const std::string echo =
      Context({Descriptor("Out", {{"sum", "integer"},
                                  {"b", "float"},
                                  {"has_k", "boolean"},
                                  {"note", "string"},
                                  {"empty", "string"},
                                  {"ts", "time"}})},
              {Descriptor("Echo", {{"sum", "integer"},
                                   {"b", "float"},
                                   {"note_set", "boolean"},
                                   {"empty_set", "boolean"},
                                   {"has_k", "boolean"}})},
              {{"sum", "AddInteger", {"Input:Out.sum"}, {"Output:Echo.sum"}},
               {"b", "AddFloat", {"Input:Out.b"}, {"Output:Echo.b"}},
               {"note", "IsDefined", {"Input:Out.note"}, {"Output:Echo.note_set"}},
               {"empty", "IsDefined", {"Input:Out.empty"}, {"Output:Echo.empty_set"}},
               {"has_k", "IsDefined", {"Input:Out.has_k"}, {"Output:Echo.has_k"}}});
  RunResult second = Run(echo, first.out, "csv");
  ASSERT_EQ(second.status, 0) << second.err;
  const std::vector<std::string> expected = {
      "sum,b,note_set,empty_set,has_k",
      std::to_string(21 + 21) + ",0.1,true,true,true",
      std::to_string(-4 + -4) + ",,true,true,true",
  };
  EXPECT_EQ(Lines(second.out), expected) << first.out;
}

// ---- errors ----

struct BadInput {
  std::string format;
  std::string input;
  int line;            // the line the error must name
  std::string cause;   // part of the message
  size_t rows_before;  // output lines written before the bad row
};

TEST_F(RunCommandTest, BadRowsNameFileLineAndCause) {
  const std::string ok = R"({"a":1,"flag":true})";
  const std::vector<BadInput> cases = {
      {"jsonl", ok + "\n\n{\"a\":2,\n", 3, "invalid JSON", 1},
      {"jsonl", ok + "\n{\"nope\":1}\n", 2, "unknown field 'nope'", 1},
      {"jsonl", "{\"a\":3000000000}\n", 1, "out of range", 0},
      {"jsonl", "{\"a\":1.5}\n", 1, "not a whole number", 0},
      {"jsonl", "{\"a\":\"abc\"}\n", 1, "not a valid integer", 0},
      {"jsonl", "{\"flag\":1}\n", 1, "JSON number", 0},
      {"jsonl", "{\"a\":true}\n", 1, "JSON boolean", 0},
      {"jsonl", "{\"k\":[1]}\n", 1, "array", 0},
      {"jsonl", "[1,2]\n", 1, "JSON object", 0},
      {"jsonl", ok + "\n" + ok + "\n{\"_sign\":\"x\"}\n", 3, "_sign", 2},
      {"jsonl", "{\"_ts\":\"yesterday\"}\n", 1, "not a time", 0},
      {"jsonl", "{\"_ts\":5}\n", 1, "_ts", 0},
      {"csv", "a,nope\n1,2\n", 1, "unknown field 'nope'", 0},
      {"csv", "a,a\n1,2\n", 1, "twice", 0},
      {"csv", "a,\n1,2\n", 1, "empty", 0},
      {"csv", "a,flag\n1,true\n1\n", 3, "1 cells but the header has 2", 1},
      {"csv", "a,k\n1,x\n2,\"open\nstill open\n", 3, "not closed", 1},
      {"csv", "a,k\n1,x\"y\n", 2, "quote inside an unquoted cell", 0},
      {"csv", "a,k\n1,\"xy\"z\n", 2, "after the closing quote", 0},
      {"csv", "a\nabc\n", 2, "not a valid integer", 0},
      {"csv", "a,flag\n1,maybe\n", 2, "not a valid boolean", 0},
      {"csv", "a,_sign\n1,+\n1,*\n", 3, "_sign", 1},
      {"csv", "a\n\"\"\n", 2, "not a valid integer", 0},  // "" is text, not NULL
  };
  for (const BadInput& c : cases) {
    SCOPED_TRACE(c.format + ": " + c.input);
    RunResult r = Run(FilterContext(), c.input, c.format);
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, StartsWith(InputPath(c.format) + ":" + std::to_string(c.line) + ": "));
    EXPECT_THAT(r.err, HasSubstr(c.cause));
    EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
    const size_t header = c.format == "csv" ? 1 : 0;
    EXPECT_EQ(Lines(r.out).size(), header + c.rows_before) << r.out;
  }
}

TEST_F(RunCommandTest, SetupErrorsAreOneLine) {
  struct Case {
    std::string what;
    std::string context;
    std::string format;
    std::string cause;
  };
  const std::vector<Case> cases = {
      {"malformed XML", "<ExpressionContext><InputTuples>", "jsonl", "context.xml"},
      {"unknown operator",
       Context({kInDescriptor}, {Descriptor("Out", {{"s", "integer"}})},
               {{"x", "NoSuchOperator", {}, {}}}),
       "jsonl", "context.xml"},
      {"no input descriptor", Context({}, {Descriptor("Out", {{"s", "integer"}})}, {}), "jsonl",
       "no input descriptor"},
      {"reserved input field name",
       Context({Descriptor("In", {{"_ts", "time"}})}, {Descriptor("Out", {{"s", "integer"}})}, {}),
       "jsonl", "'_ts'"},
      {"unknown format", FilterContext(), "xml", "unknown format"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RunResult r = Run(c.context, "{}\n", c.format);
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, HasSubstr(c.cause));
    // The engine's own log copy of a raised error is not repeated.
    EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
    EXPECT_EQ(r.out, "");
  }

  cpxrun::RunOptions missing;
  missing.context_path = Path("context.xml").string();
  WriteFile(missing.context_path, FilterContext());
  missing.input = Path("absent.jsonl").string();
  missing.output = Path("kept.jsonl").string();
  WriteFile(missing.output, "earlier results\n");
  std::ostringstream err;
  EXPECT_EQ(cpxrun::RunCommand(missing, err), 1);
  EXPECT_THAT(err.str(), HasSubstr("absent.jsonl"));
  EXPECT_EQ(ReadFile(missing.output), "earlier results\n") << "a missing input must not truncate";
}

// Raises during the run for a negative input and logs a warning (without
// raising) for zero.
class CheckSignOperator final : public vx::CpxExpressionOperator_Engine {
 public:
  using vx::CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  static const vx::XmlQName& GetOperatorType() {
    static const vx::XmlQName name("TestRunCheckSign");
    return name;
  }
  void InsureValidParameters() const override {}
  void Execute(vx::CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    const vx::CpxTuple* t = GetInputTupleField(ev, 0, pos);
    if (!t->HasFieldValue(pos)) return;
    const int32_t v = vx::CpxTupleField_Integer::GetValue(t, pos);
    if (v < 0) VX_RAISE_TEXT("negative value {value}", GetName(), {"value", v});
    if (v == 0) VX_LOG_TEXT(vx::LogLevel::Warning, "zero value seen", GetName());
  }
};

TEST_F(RunCommandTest, EngineErrorsDuringARunNameTheRow) {
  static const bool registered = [] {
    static const vx::CpxOperatorInfo info =
        VX_OPERATOR(CheckSignOperator, "1 integer", "none", "-", "Test check.");
    vx::CpxExpressionOperatorRegistry::Instance().Register(info);
    return true;
  }();
  ASSERT_TRUE(registered);
  const std::string context =
      Context({kInDescriptor}, {Descriptor("Out", {{"s", "integer"}})},
              {{"check", "TestRunCheckSign", {"Input:In.a"}, {}},
               {"add", "AddInteger", {"Input:In.a", "Input:In.a"}, {"Output:Out.s"}}});
  const std::vector<int> as = {1, 0, 2, -1, 5};
  const size_t bad_row = 3;  // index of the negative value
  std::string input;
  for (int a : as) input += Json{{"a", a}}.dump() + "\n";
  RunResult r = Run(context, input, "jsonl");
  EXPECT_EQ(r.status, 1);
  std::vector<std::string> expected;
  for (size_t i = 0; i < bad_row; ++i) expected.push_back(Json{{"s", as[i] + as[i]}}.dump());
  EXPECT_EQ(Lines(r.out), expected);

  // The warning passes through once; the raised error is reported once,
  // with the row's line, and is the last line.
  const std::vector<std::string> err = Lines(r.err);
  ASSERT_EQ(err.size(), 2u) << r.err;
  EXPECT_THAT(err[0], HasSubstr("zero value seen"));
  EXPECT_THAT(err[1], StartsWith(InputPath("jsonl") + ":" + std::to_string(bad_row + 1) + ": "));
  EXPECT_THAT(err[1], HasSubstr("negative value " + std::to_string(as[bad_row])));
}

TEST_F(RunCommandTest, FurtherInputDescriptorsGetTheirDefaults) {
  const int side_default = 10;
  const std::string context =
      Context({kInDescriptor, Descriptor("Side", {{"z", "integer", std::to_string(side_default)}})},
              {Descriptor("Out", {{"s", "integer"}})},
              {{"add", "AddInteger", {"Input:In.a", "Input:Side.z"}, {"Output:Out.s"}}});
  const std::vector<int> as = {1, -25};
  std::string input;
  for (int a : as) input += Json{{"a", a}}.dump() + "\n";
  RunResult r = Run(context, input, "jsonl");
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<std::string> expected;
  for (int a : as) expected.push_back(Json{{"s", a + side_default}}.dump());
  EXPECT_EQ(Lines(r.out), expected);
}

TEST_F(RunCommandTest, StdinAndStdout) {
  cpxrun::RunOptions options;
  options.context_path = Path("context.xml").string();
  WriteFile(options.context_path, FilterContext());
  options.format = "csv";

  std::istringstream in("a,flag\n5,true\n6,false\n");
  std::ostringstream out;
  std::ostringstream err;
  std::streambuf* old_in = std::cin.rdbuf(in.rdbuf());
  std::streambuf* old_out = std::cout.rdbuf(out.rdbuf());
  const int status = cpxrun::RunCommand(options, err);
  std::cin.rdbuf(old_in);
  std::cout.rdbuf(old_out);
  ASSERT_EQ(status, 0) << err.str();
  const std::vector<std::string> lines = Lines(out.str());
  ASSERT_EQ(lines.size(), 2u) << out.str();
  EXPECT_THAT(lines[1], StartsWith(std::to_string(5 + 5) + ",,false,"));

  std::istringstream bad("a\n1\nx\n");
  std::ostringstream out2, err2;
  old_in = std::cin.rdbuf(bad.rdbuf());
  old_out = std::cout.rdbuf(out2.rdbuf());
  EXPECT_EQ(cpxrun::RunCommand(options, err2), 1);
  std::cin.rdbuf(old_in);
  std::cout.rdbuf(old_out);
  EXPECT_THAT(err2.str(), StartsWith("stdin:3: "));
}

}  // namespace
