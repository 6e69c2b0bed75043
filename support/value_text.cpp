// Text forms of field values, shared by descriptor defaults, tuple XML, the
// command line and the conversion operators.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "support/interval_d2s.h"
#include "support/time_text.h"
#include "support/tuple.h"
#include "support/xml_dom_forest.h"

namespace vx {
namespace {

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

template <class T>
bool ParseInteger(T& out, std::string_view text) {
  if (!text.empty() && text[0] == '+') text.remove_prefix(1);
  if (text.empty()) return false;
  T v{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size()) return false;
  out = v;
  return true;
}

int CopyOut(char* buf, size_t size, std::string_view text) {
  if (size == 0) return static_cast<int>(text.size());
  size_t n = std::min(text.size(), size - 1);
  std::memcpy(buf, text.data(), n);
  buf[n] = '\0';
  return static_cast<int>(text.size());
}

constexpr int64_t kMicrosPerSecond = 1000000;

}  // namespace

// ---- boolean, integer, long, float ----

bool CpxTupleField_Boolean::FromString(bool& out, std::string_view text) {
  if (text == "true" || text == "1") {
    out = true;
  } else if (text == "false" || text == "0") {
    out = false;
  } else {
    return false;
  }
  return true;
}

int CpxTupleField_Boolean::ToString(char* buf, size_t size, bool v, const char* format) {
  if (format) return std::snprintf(buf, size, format, v ? 1 : 0);
  return CopyOut(buf, size, v ? "true" : "false");
}

bool CpxTupleField_Integer::FromString(int32_t& out, std::string_view text) {
  return ParseInteger(out, text);
}

int CpxTupleField_Integer::ToString(char* buf, size_t size, int32_t v, const char* format) {
  return std::snprintf(buf, size, format ? format : "%d", v);
}

bool CpxTupleField_Long::FromString(int64_t& out, std::string_view text) {
  return ParseInteger(out, text);
}

int CpxTupleField_Long::ToString(char* buf, size_t size, int64_t v, const char* format) {
  return std::snprintf(buf, size, format ? format : "%lld", static_cast<long long>(v));
}

bool CpxTupleField_Float::FromString(double& out, std::string_view text) {
  std::string_view body = text;
  bool negative = false;
  if (!body.empty() && (body[0] == '+' || body[0] == '-')) {
    negative = body[0] == '-';
    body.remove_prefix(1);
  }
  if (EqualsNoCase(body, "inf") || EqualsNoCase(body, "infinity")) {
    out = negative ? -std::numeric_limits<double>::infinity()
                   : std::numeric_limits<double>::infinity();
    return true;
  }
  if (EqualsNoCase(body, "nan")) {
    out = std::numeric_limits<double>::quiet_NaN();
    return true;
  }
  if (body.empty() || body[0] == '+' || body[0] == '-') return false;
  double v = 0;
  auto [end, ec] = std::from_chars(body.data(), body.data() + body.size(), v);
  if (ec != std::errc() || end != body.data() + body.size()) return false;
  out = negative ? -v : v;
  return true;
}

int CpxTupleField_Float::ToString(char* buf, size_t size, double v, const char* format) {
  if (format) return std::snprintf(buf, size, format, v);
  if (std::isnan(v)) return CopyOut(buf, size, "nan");
  if (std::isinf(v)) return CopyOut(buf, size, v < 0 ? "-inf" : "inf");
  char tmp[64];
  auto [end, ec] = std::to_chars(tmp, tmp + sizeof tmp, v);
  return CopyOut(buf, size, std::string_view(tmp, static_cast<size_t>(end - tmp)));
}

// ---- time ----

// The formats of the time text, read and printed in UTC by the shared time
// formatter. A time outside the formatter's year range prints as "@N".
namespace {
constexpr std::string_view kTimeFormat = "YYYY-MM-DD HH24:MI:SS";
constexpr std::string_view kTimeFractionFormat = "YYYY-MM-DD HH24:MI:SS.ff";
}  // namespace

bool CpxTupleField_Time::FromString(int64_t& out, std::string_view text) {
  if (!text.empty() && text[0] == '@') return ParseInteger(out, text.substr(1));
  for (std::string_view format : {kTimeFractionFormat, kTimeFormat}) {
    if (TimeFromString(text.data(), text.size(), format.data(), format.size(), PR_GMTParameters,
                       out, nullptr, 0))
      return true;
  }
  return false;
}

std::string CpxTupleField_Time::ToString(int64_t v) {
  const std::string_view format = v % kMicrosPerSecond == 0 ? kTimeFormat : kTimeFractionFormat;
  std::optional<std::string> text =
      TimeToString(v, format.data(), format.size(), PR_GMTParameters, nullptr, 0);
  return text ? std::move(*text) : "@" + std::to_string(v);
}

// ---- day-to-second interval ----

// "[-]D HH:MM:SS[.f]", the DAY TO SECOND form of IntervalD2S.
bool CpxTupleField_IntervalD2S::FromString(int64_t& out, std::string_view text) {
  IntervalD2S interval;
  if (!interval.intd2s_parser_day2second(text)) return false;
  interval.canon();
  if (!interval.IsValid()) return false;
  out = interval.GetValue();
  return true;
}

std::string CpxTupleField_IntervalD2S::ToString(int64_t v) { return IntervalD2S(v).ToString(); }

// ---- blob ----

std::string CpxTupleField_Blob::ToHexString(std::string_view bytes) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

bool CpxTupleField_Blob::FromHexString(std::string& out, std::string_view text) {
  if (text.size() % 2) return false;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string bytes;
  bytes.reserve(text.size() / 2);
  for (size_t i = 0; i < text.size(); i += 2) {
    int hi = nibble(text[i]), lo = nibble(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes += static_cast<char>(hi << 4 | lo);
  }
  out = std::move(bytes);
  return true;
}

// ---- any field ----

std::optional<std::string> ValueBytesFromText(CpxFieldKind kind, std::string_view text) {
  auto bytes_of = [](const auto& v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
  };
  switch (kind) {
    case CpxFieldKind::Boolean: {
      bool v;
      if (!CpxTupleField_Boolean::FromString(v, text)) return std::nullopt;
      return std::string(1, v ? '\1' : '\0');
    }
    case CpxFieldKind::Integer: {
      int32_t v;
      if (!CpxTupleField_Integer::FromString(v, text)) return std::nullopt;
      return bytes_of(v);
    }
    case CpxFieldKind::Long: {
      int64_t v;
      if (!CpxTupleField_Long::FromString(v, text)) return std::nullopt;
      return bytes_of(v);
    }
    case CpxFieldKind::Float: {
      double v;
      if (!CpxTupleField_Float::FromString(v, text)) return std::nullopt;
      return bytes_of(v);
    }
    case CpxFieldKind::Time: {
      int64_t v;
      if (!CpxTupleField_Time::FromString(v, text)) return std::nullopt;
      return bytes_of(v);
    }
    case CpxFieldKind::IntervalD2S: {
      int64_t v;
      if (!CpxTupleField_IntervalD2S::FromString(v, text)) return std::nullopt;
      return bytes_of(v);
    }
    case CpxFieldKind::Blob: {
      std::string v;
      if (!CpxTupleField_Blob::FromHexString(v, text)) return std::nullopt;
      return v;
    }
    case CpxFieldKind::String:
      return std::string(text);
    case CpxFieldKind::Xml: {
      XmlDomLog log;  // text that is not XML is not an xml value
      return CpxTupleField_Xml::Canonical(text, log);
    }
  }
  return std::nullopt;
}

bool SetFieldFromText(CpxTuple& t, unsigned p, std::string_view text) {
  std::optional<std::string> bytes = ValueBytesFromText(t.GetFieldKind(p), text);
  if (!bytes) return false;
  t.SetFieldValue(p, static_cast<uint32_t>(bytes->size()), bytes->data());
  return true;
}

std::string FieldToText(const CpxTuple& t, unsigned p) {
  char buf[64];
  switch (t.GetFieldKind(p)) {
    case CpxFieldKind::Boolean:
      return CpxTupleField_Boolean::GetValue(&t, p) ? "true" : "false";
    case CpxFieldKind::Integer:
      CpxTupleField_Integer::ToString(buf, sizeof buf, CpxTupleField_Integer::GetValue(&t, p));
      return buf;
    case CpxFieldKind::Long:
      CpxTupleField_Long::ToString(buf, sizeof buf, CpxTupleField_Long::GetValue(&t, p));
      return buf;
    case CpxFieldKind::Float:
      CpxTupleField_Float::ToString(buf, sizeof buf, CpxTupleField_Float::GetValue(&t, p));
      return buf;
    case CpxFieldKind::Time:
      return CpxTupleField_Time::ToString(CpxTupleField_Time::GetValue(&t, p));
    case CpxFieldKind::IntervalD2S:
      return CpxTupleField_IntervalD2S::ToString(CpxTupleField_IntervalD2S::GetValue(&t, p));
    case CpxFieldKind::Blob:
      return CpxTupleField_Blob::ToHexString(CpxTupleField_Blob::GetView(&t, p));
    case CpxFieldKind::String:
      return std::string(CpxTupleField_String::GetView(&t, p));
    case CpxFieldKind::Xml:
      return std::string(CpxTupleField_Xml::GetView(&t, p));
  }
  return {};
}

}  // namespace vx
