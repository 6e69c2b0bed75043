// String and blob operators where XML suites cannot reach: invalid UTF-8,
// the substring writer's refusals, the base64 codec, load-time parameter
// faults, the compiled-pattern state, and outputs that are also inputs.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_string_operators.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Load;
using testing::Op;
using testing::QuietLog;
using testing::Ref;

// The value of a string or blob field, or nullopt for NULL.
std::optional<std::string> Bytes(const CpxTuple& t, unsigned p) {
  if (!t.HasFieldValue(p)) return std::nullopt;
  return std::string(CpxTupleField_String::GetView(&t, p));
}

Ptr<CpxTuple> StringTuple() {
  static Ptr<CpxTupleDescriptor> td = [] {
    auto d = MakePtr<CpxTupleDescriptor>("S");
    d->AddField(MakePtr<CpxTupleField>("s", CpxFieldKind::String));
    return d;
  }();
  return td->CreateDefaultTuple();
}

// ---- SetUTF8SubString ----

struct SubStringCase {
  const char* text;
  int64_t first, end;
  std::optional<std::string> expected;  // nullopt: refused
};

TEST(SetUTF8SubString, StoresCharacterRangesAndRefusesTheRest) {
  const std::vector<SubStringCase> cases = {
      {"abc", 0, 3, "abc"},
      {"abc", 1, 2, "b"},
      {"abc", 3, 3, ""},             // first == character count: empty
      {"abc", 0, 10, "abc"},         // end cut to the count
      {"abc", 4, 4, std::nullopt},   // first past the count
      {"abc", -1, 2, std::nullopt},  // negative first
      {"abc", 2, 1, std::nullopt},   // end before first
      {"", 0, 0, ""},
      {"a\xe2\x82\xac\xf0\x9f\x98\x80"
       "b",
       1, 3, "\xe2\x82\xac\xf0\x9f\x98\x80"},  // a € 😀 b
      {"\xc3\xa9\xc3\xa9", 1, 2, "\xc3\xa9"},
      {"a\xff", 0, 1, std::nullopt},     // not UTF-8
      {"\xc3", 0, 0, std::nullopt},      // truncated sequence
      {"\x80\x80", 0, 1, std::nullopt},  // starts with a continuation byte
  };
  for (const SubStringCase& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " [" + std::to_string(c.first) + ", " +
                 std::to_string(c.end) + ")");
    Ptr<CpxTuple> t = StringTuple();
    CpxTupleField_String::SetValue(*t, 0, "before");
    const bool stored = CpxTupleField_String::SetUTF8SubString(*t, 0, c.text, c.first, c.end);
    EXPECT_EQ(stored, c.expected.has_value());
    // A refusal leaves the field as it was.
    EXPECT_EQ(Bytes(*t, 0), c.expected ? *c.expected : std::string("before"));
  }
}

TEST(SetUTF8SubString, TextMayBeTheFieldsOwnValue) {
  Ptr<CpxTuple> t = StringTuple();
  CpxTupleField_String::SetValue(*t, 0, "hello, wide world");
  ASSERT_TRUE(
      CpxTupleField_String::SetUTF8SubString(*t, 0, CpxTupleField_String::GetValue(t, 0), 7, 17));
  EXPECT_EQ(Bytes(*t, 0), "wide world");
}

// ---- operators over one row ----

const char* kDescriptors =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"s\" Type=\"string\"/>"
    "<Field Name=\"t\" Type=\"string\"/><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"b\" Type=\"blob\"/></TupleDescriptor></InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"str\" Type=\"string\"/>"
    "<Field Name=\"int\" Type=\"integer\"/><Field Name=\"bool\" Type=\"boolean\"/>"
    "<Field Name=\"blob\" Type=\"blob\"/></TupleDescriptor></OutputTuples>"
    "<VariableTuples><TupleDescriptor Name=\"V\">"
    "<Field Name=\"s\" Type=\"string\" Default=\"hello world\"/>"
    "<Field Name=\"p\" Type=\"string\" Default=\"  padded  \"/>"
    "<Field Name=\"b\" Type=\"blob\" Default=\"0102030405\"/>"
    "</TupleDescriptor></VariableTuples>"
    "<ConstantTuples><TupleDescriptor Name=\"K\"><Field Name=\"one\" Type=\"integer\" "
    "Default=\"1\"/>"
    "<Field Name=\"two\" Type=\"integer\" Default=\"2\"/>"
    "<Field Name=\"seven\" Type=\"integer\" Default=\"7\"/>"
    "<Field Name=\"minus1\" Type=\"integer\" Default=\"-1\"/>"
    "<Field Name=\"o\" Type=\"string\" Default=\"o\"/>"
    "<Field Name=\"a\" Type=\"string\" Default=\"a\"/>"
    "<Field Name=\"long\" Type=\"string\" Default=\"{{{{{{{{{{{{{{{{{{{{}}}}}}}}}}}}}}}}}}}}\"/>"
    "<Field Name=\"word\" Type=\"string\" Default=\"(\\w+)\"/>"
    "<Field Name=\"brackets\" Type=\"string\" Default=\"[$1]\"/>"
    "</TupleDescriptor></ConstantTuples>";

enum OutField : unsigned { kStr = 0, kInt = 1, kBool = 2, kBlob = 3 };

// A context of the given operators over the descriptors above.
Ptr<CpxExpressionContext_Engine> LoadOperators(const std::string& operators) {
  Ptr<CpxExpressionContext_Engine> ctx =
      Load(ContextXml(std::string(kDescriptors) + "<Operators>" + operators + "</Operators>"));
  ctx->InitializeEvaluators();
  return ctx;
}

// Runs one row with raw bytes in In.s (and In.t, In.i when given); returns
// the evaluator, whose first output tuple holds the results.
Ptr<CpxExpressionEvaluator_Engine> RunRow(CpxExpressionContext_Engine& ctx, std::string_view s,
                                          std::optional<std::string_view> t = std::nullopt,
                                          std::optional<int32_t> i = std::nullopt) {
  Ptr<CpxTuple> row = ctx.GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
  row->SetFieldValue(0, static_cast<uint32_t>(s.size()), s.data());
  if (t) row->SetFieldValue(1, static_cast<uint32_t>(t->size()), t->data());
  if (i) CpxTupleField_Integer::SetValue(*row, 2, *i);
  return testing::RunRow(ctx, row);
}

const CpxTuple& Output(const Ptr<CpxExpressionEvaluator_Engine>& ev) {
  return *ev->GetOutputTuples()->GetObjectByPos(0);
}

std::string Str(const char* field) { return Ref("Output", "Out", field); }

// One string operator: In.s (and the extra inputs) into Out.str.
std::string StrOp(const char* type, const std::string& extra = "") {
  return Op("op", type, Ref("Input", "In", "s") + extra, Str("str"));
}

// Texts libxml2 rejects as UTF-8: an invalid byte, a truncated two-, three-
// and four-byte sequence, and a lead byte followed by an ASCII character.
const std::vector<std::string> kInvalidUtf8 = {
    "a\xff", "\xc3", "ab\xe2\x82", "\xf0\x9f\x98", "a\xc3(b", " x\xff ",
};

TEST(StringInvalidUtf8, CharacterOperatorsGiveNull) {
  const std::string one = Ref("Constant", "K", "one");
  const std::vector<std::pair<const char*, std::string>> operators = {
      {"LengthString", Op("op", "LengthString", Ref("Input", "In", "s"), Str("int"))},
      {"LeftTrimString", StrOp("LeftTrimString")},
      {"RightTrimString", StrOp("RightTrimString")},
      {"TrimString", StrOp("TrimString")},
      {"SubstrString", StrOp("SubstrString", one)},
      {"SubstrString 3", StrOp("SubstrString", one + one)},
      {"MidString", StrOp("MidString", one)},
      {"MidString 3", StrOp("MidString", one + one)},
      {"LeftString", StrOp("LeftString", one)},
      {"RightString", StrOp("RightString", one)},
  };
  for (const auto& [name, op] : operators) {
    Ptr<CpxExpressionContext_Engine> ctx = LoadOperators(op);
    for (const std::string& text : kInvalidUtf8) {
      SCOPED_TRACE(std::string(name) + " of bytes " + CpxTupleField_Blob::ToHexString(text));
      const CpxTuple& out = Output(RunRow(*ctx, text));
      EXPECT_FALSE(out.HasFieldValue(kStr));
      EXPECT_FALSE(out.HasFieldValue(kInt));
    }
    // The same operator on valid text does give a value.
    EXPECT_TRUE(Output(RunRow(*ctx, " x "))
                    .HasFieldValue(std::string(name) == "LengthString" ? kInt : kStr))
        << name;
  }
}

TEST(StringInvalidUtf8, ByteOperatorsPassTheBytesThrough) {
  // Upper maps bytes, Concatenate and Replace join and search bytes: none of
  // them looks at UTF-8, so invalid text is not refused.
  Ptr<CpxExpressionContext_Engine> upper = LoadOperators(StrOp("UpperString"));
  EXPECT_EQ(Bytes(Output(RunRow(*upper, "a\xff")), kStr), "A\xff");
  Ptr<CpxExpressionContext_Engine> concat =
      LoadOperators(StrOp("ConcatenateString", Ref("Input", "In", "t")));
  EXPECT_EQ(Bytes(Output(RunRow(*concat, "\xc3", "\xa9")), kStr), "\xc3\xa9");
  // Instr backwards needs the character count: invalid text finds nothing.
  Ptr<CpxExpressionContext_Engine> instr = LoadOperators(
      Op("op", "InstrString",
         Ref("Input", "In", "s") + Ref("Constant", "K", "a") + Ref("Constant", "K", "minus1"),
         Str("int")));
  EXPECT_EQ(CpxTupleField_Integer::GetValue(&Output(RunRow(*instr, "a\xff")), kInt), 0);
  EXPECT_EQ(CpxTupleField_Integer::GetValue(&Output(RunRow(*instr, "ba")), kInt), 2);
}

// ---- outputs that are also inputs ----

struct SelfCase {
  const char* name;
  std::string op;
  unsigned variable;  // 0 V.s, 1 V.p, 2 V.b
  std::string expected;
};

TEST(StringOutputIsInput, ResultIsBuiltBeforeTheInputIsOverwritten) {
  const std::string vs = Ref("Variable", "V", "s");
  const std::string vp = Ref("Variable", "V", "p");
  const std::string vb = Ref("Variable", "V", "b");
  auto k = [](const char* f) { return Ref("Constant", "K", f); };
  const std::string braces = "{{{{{{{{{{{{{{{{{{{{}}}}}}}}}}}}}}}}}}}}";
  const std::vector<SelfCase> cases = {
      {"Upper", Op("op", "UpperString", vs, vs), 0, "HELLO WORLD"},
      {"Substr", Op("op", "SubstrString", vs + k("seven"), vs), 0, "world"},
      {"Mid", Op("op", "MidString", vs + k("two") + k("seven"), vs), 0, "ello w"},
      {"Left", Op("op", "LeftString", vs + k("two"), vs), 0, "he"},
      {"Right", Op("op", "RightString", vs + k("two"), vs), 0, "ld"},
      {"Trim", Op("op", "TrimString", vp, vp), 1, "padded"},
      {"Replace grows", Op("op", "ReplaceString", vs + k("o") + k("long"), vs), 0,
       "hell" + braces + " w" + braces + "rld"},
      {"Concatenate twice", Op("op", "ConcatenateString", k("o") + vs + vs, vs), 0,
       "ohello worldhello world"},
      {"Max", Op("op", "MaxString", vs + k("o"), vs), 0, "o"},
      {"RegexReplace", Op("op", "RegexReplaceBoostString", vs + k("word") + k("brackets"), vs), 0,
       "[hello] [world]"},
      {"RegexFirstSearch", Op("op", "RegexFirstSearchBoostString", vs + k("word"), vs), 0, "hello"},
      {"BlobExtract", Op("op", "BlobExtract", vb + k("two"), vb), 2, "\x02\x03\x04\x05"},
      {"ConcatenateBlob", Op("op", "ConcatenateBlob", vb + vb, vb), 2,
       std::string("\x01\x02\x03\x04\x05\x01\x02\x03\x04\x05")},
  };
  for (const SelfCase& c : cases) {
    SCOPED_TRACE(c.name);
    Ptr<CpxExpressionContext_Engine> ctx = LoadOperators(c.op);
    RunRow(*ctx, "");
    EXPECT_EQ(Bytes(*ctx->GetVariableTuples()->GetObjectByPos(0), c.variable), c.expected);
  }
}

// ---- parameter faults at load ----

std::string LoadFault(const std::string& op) {
  QuietLog quiet;
  try {
    LoadOperators(op);
  } catch (const ExceptionType& e) {
    // A literal message (no definition) is reported by its text.
    const char* id = e.GetMessage().GetId();
    return id && *id ? std::string(id) : e.GetMessage().GetText();
  }
  return "loaded";
}

TEST(StringParameters, ShapeFaultsRaiseTheirDefinitions) {
  const std::string s = Ref("Input", "In", "s");
  const std::string i = Ref("Input", "In", "i");
  const std::string b = Ref("Input", "In", "b");
  // Too few inputs for a shape with a minimum: the base raises this literal
  // text at once.
  const char* const kTooFew = "Input parameters have less than the required minimun";
  struct Case {
    const char* type;
    std::string inputs;
    const char* output;  // a field of Out, or "" for none
    std::string fault;   // a definition without VX_SERVER_EXPRESSION_, a text, or "loaded"
  };
  const std::vector<Case> cases = {
      {"SubstrString", s + i, "str", "loaded"},
      {"SubstrString", s + i + i, "str", "loaded"},
      {"SubstrString", s, "str", "INVALID_PARAMETERS"},
      {"SubstrString", s + i + i + i, "str", "INVALID_PARAMETERS"},
      {"SubstrString", s + i, "", "INVALID_PARAMETERS"},
      {"SubstrString", i + i, "str", "FIRST_INPUT_WRONG_TYPE"},
      {"SubstrString", s + s, "str", "SECOND_INPUT_WRONG_TYPE"},
      {"SubstrString", s + i + s, "str", "THIRD_INPUT_WRONG_TYPE"},
      {"InstrString", s + s + i + s, "int", "FOURTH_INPUT_WRONG_TYPE"},
      {"SubstrString", s + i, "int", "OUTPUT_WRONG_TYPE"},
      {"LengthString", s + s, "int", "INVALID_PARAMETERS_1_INPUT_1_OUTPUT"},
      {"LikeString", s + s + s, "bool", "INVALID_PARAMETERS_2_INPUT_1_OUTPUT"},
      {"ReplaceString", s + s, "str", "INVALID_PARAMETERS"},
      {"ConcatenateString", s + i, "str", "INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT"},
      {"EqualString", s, "bool", kTooFew},
      {"MaxString", s + s, "bool", "INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT"},
      {"BlobExtract", s + i, "blob", "FIRST_INPUT_WRONG_TYPE"},
      {"ConcatenateBlob", "", "blob", kTooFew},
      {"ToBlobBase64", s, "str", "OUTPUT_WRONG_TYPE"},
      {"EqualBlob", b + s, "bool", "INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " into '" + c.output + "'");
    std::string fault = LoadFault(Op("op", c.type, c.inputs, *c.output ? Str(c.output) : ""));
    const std::string prefix = "VX_SERVER_EXPRESSION_";
    if (fault.rfind(prefix, 0) == 0) fault.erase(0, prefix.size());
    EXPECT_EQ(fault, c.fault);
  }
}

// ---- compiled patterns ----

const CpxExpressionOperatorState_Engine_Regex& RegexState(
    const Ptr<CpxExpressionEvaluator_Engine>& ev, unsigned position) {
  auto* state =
      dynamic_cast<CpxExpressionOperatorState_Engine_Regex*>(ev->GetOperatorState(position));
  if (!state) throw std::logic_error("no regex state");
  return *state;
}

bool BoolOut(const Ptr<CpxExpressionEvaluator_Engine>& ev) {
  return CpxTupleField_Boolean::GetValue(&Output(ev), kBool);
}

TEST(StringRegexState, CompilesOnlyWhenThePatternChanges) {
  const std::string text_pattern = Ref("Input", "In", "s") + Ref("Input", "In", "t");
  Ptr<CpxExpressionContext_Engine> ctx =
      LoadOperators(Op("search", "RegexSearchBoostString", text_pattern, Str("bool")) +
                    Op("like", "LikeString", text_pattern, Str("bool")));
  Ptr<CpxExpressionEvaluator_Engine> ev;
  for (int row = 0; row < 50; ++row) {
    ev = RunRow(*ctx, row % 2 ? "abc" : "xyz", "a%");
    EXPECT_EQ(BoolOut(ev), row % 2 == 1);  // the Like result, written last
  }
  EXPECT_EQ(RegexState(ev, 0).GetCompileCount(), 1u);
  EXPECT_EQ(RegexState(ev, 1).GetCompileCount(), 1u);
  EXPECT_EQ(RegexState(ev, 1).GetExpression(), "a.*");

  // Only the last pattern is kept: alternating patterns compile every row.
  for (int row = 0; row < 10; ++row) ev = RunRow(*ctx, "abc", row % 2 ? "a%" : "b%");
  EXPECT_EQ(RegexState(ev, 0).GetCompileCount(), 11u);
  EXPECT_EQ(RegexState(ev, 1).GetCompileCount(), 11u);
}

TEST(StringRegexState, EachEvaluatorHasItsOwnPattern) {
  testing::TestParent grouped({"i"});
  Ptr<CpxExpressionContext_Engine> ctx =
      Load(ContextXml(std::string(kDescriptors) + "<Operators>" +
                      Op("search", "RegexSearchBoostString",
                         Ref("Input", "In", "s") + Ref("Input", "In", "t"), Str("bool")) +
                      "</Operators>"),
           &grouped);
  ctx->InitializeEvaluators();
  // Two groups, each with a pattern of its own, rows interleaved.
  for (int row = 0; row < 6; ++row) {
    const bool first = row % 2 == 0;
    Ptr<CpxExpressionEvaluator_Engine> ev = RunRow(*ctx, "abc", first ? "^a" : "c$", first ? 1 : 2);
    EXPECT_TRUE(BoolOut(ev));
    EXPECT_EQ(RegexState(ev, 0).GetCompileCount(), 1u);
  }
}

TEST(StringRegexState, PatternsThatDoNotCompileRaiseEveryTime) {
  const std::string text_pattern = Ref("Input", "In", "s") + Ref("Input", "In", "t");
  Ptr<CpxExpressionContext_Engine> like =
      LoadOperators(Op("like", "LikeString", text_pattern, Str("bool")));
  Ptr<CpxExpressionContext_Engine> match =
      LoadOperators(Op("match", "RegexMatchBoostString", text_pattern, Str("bool")));
  QuietLog quiet;
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      RunRow(*like, "ab", "a(b%");
      ADD_FAILURE() << "LIKE pattern compiled";
    } catch (const ExceptionType& e) {
      const LogMessage& m = e.GetMessage();
      EXPECT_STREQ(m.GetId(), "VX_SERVER_EXPRESSION_COULD_NOT_PARSE_REGEX_PATTERN");
      ASSERT_TRUE(m.FindValue("pattern") && m.FindValue("input_pattern"));
      EXPECT_EQ(*m.FindValue("pattern"), "a(b.*");
      EXPECT_EQ(*m.FindValue("input_pattern"), "a(b%");
    }
    try {
      RunRow(*match, "ab", "a(b");
      ADD_FAILURE() << "regular expression compiled";
    } catch (const ExceptionType& e) {
      EXPECT_STRNE(e.GetMessage().GetId(), "VX_SERVER_EXPRESSION_COULD_NOT_PARSE_REGEX_PATTERN");
      EXPECT_NE(std::string(e.what()).find("does not compile"), std::string::npos) << e.what();
    }
  }
  // The failure left no stale expression behind.
  EXPECT_TRUE(BoolOut(RunRow(*like, "ab", "a_")));
  EXPECT_TRUE(BoolOut(RunRow(*match, "ab", "a(b)")));
}

TEST(StringRegexState, OverComplexMatchGivesNullAndIsLogged) {
  std::vector<std::string> logged;
  LogManager::Sink previous =
      LogManager::Instance().SetSink([&](const LogMessage& m) { logged.push_back(m.GetText()); });
  Ptr<CpxExpressionContext_Engine> ctx =
      LoadOperators(Op("search", "RegexSearchBoostString",
                       Ref("Input", "In", "s") + Ref("Input", "In", "t"), Str("bool")));
  Ptr<CpxExpressionEvaluator_Engine> ev = RunRow(*ctx, std::string(40, 'x'), "(x+x+)+y");
  LogManager::Instance().SetSink(std::move(previous));
  EXPECT_FALSE(Output(ev).HasFieldValue(kBool));
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_NE(logged[0].find("'(x+x+)+y' failed, the result is NULL"), std::string::npos)
      << logged[0];
  // The same pattern on a text it can decide is answered normally.
  ev = RunRow(*ctx, "xxy", "(x+x+)+y");
  EXPECT_TRUE(BoolOut(ev));
}

// ---- base64 ----

std::string Encode(std::string_view bytes) {
  std::string text(CpxTupleField_Blob::ToBase64StringBufSize(bytes.size()), '?');
  text.resize(CpxTupleField_Blob::ToBase64String(text.data(), bytes));
  return text;
}

// The decoded bytes, or nullopt when the text is refused. Checks that the
// decoder stays inside the buffer FromBase64StringBufSize asks for.
std::optional<std::string> Decode(std::string_view text) {
  const uint32_t size = CpxTupleField_Blob::FromBase64StringBufSize(text);
  std::string buffer(size + 8, '\x5a');
  uint32_t written = 0;
  const bool ok = CpxTupleField_Blob::FromBase64String(buffer.data(), written, text);
  EXPECT_EQ(buffer.substr(size), std::string(8, '\x5a')) << "wrote past the buffer for " << text;
  if (!ok) return std::nullopt;
  EXPECT_EQ(written, size) << text;
  return buffer.substr(0, written);
}

TEST(Base64, StandardVectors) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(Encode(bytes), text);
    EXPECT_EQ(Decode(text), bytes);
  }
}

TEST(Base64, EveryLengthRoundTrips) {
  for (size_t n = 0; n <= 100; ++n) {
    std::string bytes;
    for (size_t k = 0; k < n; ++k) bytes += static_cast<char>((k * 37 + n * 11) & 0xff);
    const std::string text = Encode(bytes);
    EXPECT_EQ(text.size(), (n + 2) / 3 * 4);
    EXPECT_EQ(Decode(text), bytes) << n;
  }
}

TEST(Base64, AcceptsWhiteSpaceAndMissingPaddingRefusesTheRest) {
  EXPECT_EQ(Decode(" Zm9v\r\nYmE= \t"), "fooba");
  EXPECT_EQ(Decode("Zm9vYmE"), "fooba");
  EXPECT_EQ(Decode("Zg"), "f");
  EXPECT_EQ(Decode("Zg=\n="), "f");
  for (const char* bad : {"Z", "Zm9vY", "Zg===", "Zm9v=", "Zg=g", "Zh==", "Zm9=", "Zm9v*", "Zm-_",
                          "====", "Zg==Zg=="}) {
    EXPECT_EQ(Decode(bad), std::nullopt) << bad;
  }
}

// ---- narrowing ----

TEST(StringSizeCast, OutOfRangeRaises) {
  QuietLog quiet;
  EXPECT_EQ(CpxSizeCast<int32_t>(uint64_t{2147483647}), 2147483647);
  try {
    CpxSizeCast<int32_t>(uint64_t{2147483648});
    ADD_FAILURE() << "no raise";
  } catch (const ExceptionType& e) {
    EXPECT_NE(std::string(e.what()).find("size_type_cast conversion failed"), std::string::npos);
  }
}

}  // namespace
}  // namespace vx
