#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/tuple.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

Ptr<CpxTupleDescriptor> MakeDescriptor() {
  Ptr<CpxTupleDescriptor> td = MakePtr<CpxTupleDescriptor>("T");
  td->AddField(MakePtr<CpxTupleField>("i", CpxFieldKind::Integer, std::string("7")));
  td->AddField(MakePtr<CpxTupleField>("s", CpxFieldKind::String));
  td->AddField(MakePtr<CpxTupleField>("f", CpxFieldKind::Float));
  td->AddField(MakePtr<CpxTupleField>("t", CpxFieldKind::Time, std::string("@0")));
  return td;
}

TEST(Tuple, DefaultsNullsAndClearing) {
  Ptr<CpxTupleDescriptor> td = MakeDescriptor();
  Ptr<CpxTuple> t = td->CreateDefaultTuple();
  ASSERT_TRUE(t->HasFieldValue(0));
  EXPECT_EQ(CpxTupleField_Integer::GetValue(t, 0), 7);
  EXPECT_FALSE(t->HasFieldValue(1));
  EXPECT_EQ(t->GetFieldValue(1), nullptr);
  EXPECT_EQ(CpxTupleField_Time::ToString(CpxTupleField_Time::GetValue(t, 3)), "1970-01-01 00:00:00");

  t->ClearFieldValue(0);
  EXPECT_FALSE(t->HasFieldValue(0));
  CpxTupleField_Integer::SetValue(*t, 0, -3);
  EXPECT_EQ(CpxTupleField_Integer::GetValue(t, 0), -3);

  // Strings keep their byte length and stay zero-terminated; an empty string
  // is a value, not NULL.
  CpxTupleField_String::SetValue(*t, 1, std::string_view("ab\0c", 4));
  EXPECT_EQ(CpxTupleField_String::GetBytesLength(t, 1), 4u);
  CpxTupleField_String::SetValue(*t, 1, "");
  EXPECT_TRUE(t->HasFieldValue(1));
  EXPECT_STREQ(CpxTupleField_String::GetValue(t, 1), "");

  t->WriteDefaultFields();
  EXPECT_EQ(CpxTupleField_Integer::GetValue(t, 0), 7);
  EXPECT_FALSE(t->HasFieldValue(1));

  EXPECT_THROW(t->HasFieldValue(4), ExceptionType);
}

TEST(Tuple, CopyIsIndependent) {
  Ptr<CpxTupleDescriptor> td = MakeDescriptor();
  Ptr<CpxTuple> a = td->CreateDefaultTuple();
  CpxTupleField_String::SetValue(*a, 1, "hello");
  a->SetTupleType(Message::kNegative);
  a->SetTimestamp(42);
  Ptr<CpxTuple> b = a->Copy();
  EXPECT_EQ(a->Compare(*b), 0);
  CpxTupleField_String::SetValue(*a, 1, "other");
  EXPECT_EQ(CpxTupleField_String::GetView(b, 1), "hello");
  EXPECT_EQ(b->GetTupleType(), Message::kNegative);
  EXPECT_EQ(b->GetTimestamp(), 42);
}

TEST(Tuple, CompareOneFieldRules) {
  Ptr<CpxTupleDescriptor> td = MakeDescriptor();
  Ptr<CpxTuple> a = td->CreateDefaultTuple(), b = td->CreateDefaultTuple();
  // NULL sorts by the rule.
  CpxTupleField_String::SetValue(*b, 1, "x");
  EXPECT_LT(CpxTuple::CompareOneField(*a, 1, *b, 1, CpxTuple::kNullsFirst), 0);
  EXPECT_GT(CpxTuple::CompareOneField(*a, 1, *b, 1, CpxTuple::kNullsLast), 0);
  // Byte-wise with the shorter prefix first.
  CpxTupleField_String::SetValue(*a, 1, "x");
  CpxTupleField_String::SetValue(*b, 1, "xa");
  EXPECT_LT(CpxTuple::CompareOneField(*a, 1, *b, 1, CpxTuple::kNullsFirst), 0);
  // NaN sorts after +inf and equals NaN.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  CpxTupleField_Float::SetValue(*a, 2, nan);
  CpxTupleField_Float::SetValue(*b, 2, std::numeric_limits<double>::infinity());
  EXPECT_GT(CpxTuple::CompareOneField(*a, 2, *b, 2, CpxTuple::kNullsFirst), 0);
  CpxTupleField_Float::SetValue(*b, 2, nan);
  EXPECT_EQ(CpxTuple::CompareOneField(*a, 2, *b, 2, CpxTuple::kNullsFirst), 0);
  // Integers compare numerically, not by stored bytes.
  CpxTupleField_Integer::SetValue(*a, 0, -1);
  CpxTupleField_Integer::SetValue(*b, 0, 1);
  EXPECT_LT(CpxTuple::CompareOneField(*a, 0, *b, 0, CpxTuple::kNullsFirst), 0);
}

struct TextCase {
  CpxFieldKind kind;
  const char* text;
  const char* canonical;  // nullptr: the text must be rejected
};

TEST(ValueText, ParsesAndPrintsEveryType) {
  const TextCase cases[] = {
      {CpxFieldKind::Boolean, "true", "true"},
      {CpxFieldKind::Boolean, "0", "false"},
      {CpxFieldKind::Boolean, "yes", nullptr},
      {CpxFieldKind::Integer, "-2147483648", "-2147483648"},
      {CpxFieldKind::Integer, "+12", "12"},
      {CpxFieldKind::Integer, "2147483648", nullptr},
      {CpxFieldKind::Integer, "1.0", nullptr},
      {CpxFieldKind::Integer, "", nullptr},
      {CpxFieldKind::Long, "-9223372036854775808", "-9223372036854775808"},
      {CpxFieldKind::Float, "0.1", "0.1"},
      {CpxFieldKind::Float, "1e300", "1e+300"},
      {CpxFieldKind::Float, "-inf", "-inf"},
      {CpxFieldKind::Float, "NaN", "nan"},
      {CpxFieldKind::Float, "1,5", nullptr},
      {CpxFieldKind::Time, "2024-01-02 10:00:00", "2024-01-02 10:00:00"},
      {CpxFieldKind::Time, "2024-01-02 10:00:00.5", "2024-01-02 10:00:00.500000"},
      {CpxFieldKind::Time, "@-1", "1969-12-31 23:59:59.999999"},
      {CpxFieldKind::Time, "2024-13-02 10:00:00", nullptr},
      {CpxFieldKind::IntervalD2S, "0 00:00:01.5", "0 00:00:01.500000"},
      {CpxFieldKind::IntervalD2S, "-3 04:00:00.000000", "-3 04:00:00.000000"},
      {CpxFieldKind::IntervalD2S, "1 24:00:00", nullptr},
      {CpxFieldKind::Blob, "00ffAb", "00FFAB"},
      {CpxFieldKind::Blob, "0", nullptr},
      {CpxFieldKind::Blob, "zz", nullptr},
      {CpxFieldKind::String, "  spaced  ", "  spaced  "},
  };
  for (const TextCase& c : cases) {
    Ptr<CpxTupleDescriptor> td = MakePtr<CpxTupleDescriptor>("T");
    td->AddField(MakePtr<CpxTupleField>("v", c.kind));
    Ptr<CpxTuple> t = td->CreateDefaultTuple();
    bool ok = SetFieldFromText(*t, 0, c.text);
    SCOPED_TRACE(std::string(CpxTupleFieldTypes::Name(c.kind)) + " '" + c.text + "'");
    EXPECT_EQ(ok, c.canonical != nullptr);
    if (ok && c.canonical) {
      EXPECT_EQ(FieldToText(*t, 0), c.canonical);
    }
  }
}

TEST(ValueText, FloatTextReadsBackExactly) {
  const double values[] = {0.1, 1.0 / 3.0, 1e-310, -2.5e17, 123456789.123456789};
  for (double v : values) {
    char buf[64];
    CpxTupleField_Float::ToString(buf, sizeof buf, v);
    double back = 0;
    ASSERT_TRUE(CpxTupleField_Float::FromString(back, buf)) << buf;
    EXPECT_EQ(back, v) << buf;
  }
}

TEST(TupleXml, ReadsWhatItWrites) {
  Ptr<CpxTupleDescriptor> td = MakeDescriptor();
  const std::string xml =
      "<Tuple Descriptor=\"T\" Timestamp=\"2024-01-02 10:00:00\" Sign=\"-\">"
      "<Field Name=\"s\"> a &amp; b </Field><Field Name=\"f\">2.5</Field>"
      "<Field Name=\"i\" Null=\"true\"/></Tuple>";
  auto reader = XmlReaderContext::FromMemory(xml, "t.xml");
  auto find = [&](const std::string& n) -> const CpxTupleDescriptor* {
    return n == "T" ? td.Get() : nullptr;
  };
  Ptr<CpxTuple> t = ReadTupleXml(*reader, find);
  EXPECT_EQ(t->GetTupleType(), Message::kNegative);
  EXPECT_FALSE(t->HasFieldValue(0));
  EXPECT_EQ(CpxTupleField_String::GetView(t, 1), " a & b ");
  EXPECT_FALSE(t->HasFieldValue(3));  // unlisted fields are NULL, not defaults

  auto writer = XmlWriterContext::ToMemory();
  WriteTupleXml(*writer, *t);
  auto again = XmlReaderContext::FromMemory(writer->Finish(), "again.xml");
  Ptr<CpxTuple> u = ReadTupleXml(*again, find);
  EXPECT_EQ(t->Compare(*u), 0);

  testing::QuietLog quiet;
  auto bad = XmlReaderContext::FromMemory(
      "<Tuple Descriptor=\"T\">\n<Field Name=\"i\">x</Field></Tuple>", "bad.xml");
  try {
    ReadTupleXml(*bad, find);
    FAIL() << "an unreadable integer must be rejected";
  } catch (const ExceptionType& e) {
    EXPECT_NE(std::string(e.what()).find("line 2 in file bad.xml"), std::string::npos) << e.what();
  }
}

}  // namespace
}  // namespace vx
