// UTF-8 substrings of string fields and the base64 text form of blobs.
#include <libxml/xmlstring.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "support/tuple.h"

namespace vx {

namespace {

const xmlChar* AsXml(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

// True when `bytes` lies inside the field's current value, so that storing
// it must not overwrite what it is copied from.
bool InsideFieldValue(const CpxTuple& t, unsigned p, std::string_view bytes) {
  uint32_t size = 0;
  const char* value = static_cast<const char*>(t.GetFieldValue(p, size));
  if (!value) return false;
  const std::less_equal<const char*> le;
  return le(value, bytes.data()) && le(bytes.data(), value + size);
}

}  // namespace

// ---- substrings counted in characters ----

bool CpxTupleField_String::SetUTF8SubString(CpxTuple& t, unsigned p, const char* text,
                                            int64_t first, int64_t end) {
  return SetUTF8SubString(t, p, std::string_view(text), first, end);
}

bool CpxTupleField_String::SetUTF8SubString(CpxTuple& t, unsigned p, std::string_view text,
                                            int64_t first, int64_t end) {
  std::string_view sub;
  if (IsPlainAscii(text)) {
    // What the walks below find for such a text, without walking.
    const int64_t count = static_cast<int64_t>(text.size());
    if (first < 0 || first > count || end < first) return false;
    end = std::min<int64_t>(end, count);
    sub = text.substr(static_cast<size_t>(first), static_cast<size_t>(end - first));
  } else {
    // xmlUTF8Strlen is negative for text that is not UTF-8.
    const int count = xmlUTF8Strlen(AsXml(text.data()));
    if (count < 0 || first < 0 || first > count || end < first) return false;
    end = std::min<int64_t>(end, count);
    // xmlUTF8Strpos is stricter than xmlUTF8Strlen (it refuses a continuation
    // byte where a character starts): a null position is a refusal too.
    const xmlChar* b = xmlUTF8Strpos(AsXml(text.data()), static_cast<int>(first));
    if (!b) return false;
    const xmlChar* e = end == first ? b : xmlUTF8Strpos(b, static_cast<int>(end - first));
    if (!e) return false;
    sub = std::string_view(reinterpret_cast<const char*>(b), static_cast<size_t>(e - b));
  }
  if (InsideFieldValue(t, p, sub)) {
    const std::string copy(sub);
    t.SetFieldValue(p, static_cast<uint32_t>(copy.size()), copy.data());
  } else {
    t.SetFieldValue(p, static_cast<uint32_t>(sub.size()), sub.data());
  }
  return true;
}

// ---- base64 ----

namespace {

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool IsBase64Space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

uint64_t CpxTupleField_Blob::ToBase64StringBufSize(uint64_t size) { return (size + 2) / 3 * 4; }

uint32_t CpxTupleField_Blob::ToBase64String(char* out, std::string_view bytes) {
  const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t n = bytes.size();
  char* o = out;
  size_t i = 0;
  for (; i + 3 <= n; i += 3) {
    const uint32_t v = uint32_t{b[i]} << 16 | uint32_t{b[i + 1]} << 8 | b[i + 2];
    *o++ = kBase64Digits[v >> 18];
    *o++ = kBase64Digits[v >> 12 & 63];
    *o++ = kBase64Digits[v >> 6 & 63];
    *o++ = kBase64Digits[v & 63];
  }
  if (const size_t rest = n - i; rest > 0) {
    const uint32_t v = uint32_t{b[i]} << 16 | (rest == 2 ? uint32_t{b[i + 1]} << 8 : 0);
    *o++ = kBase64Digits[v >> 18];
    *o++ = kBase64Digits[v >> 12 & 63];
    *o++ = rest == 2 ? kBase64Digits[v >> 6 & 63] : '=';
    *o++ = '=';
  }
  return static_cast<uint32_t>(o - out);
}

// Every character that is neither white space nor padding carries six bits;
// for a text that decodes, that is exactly the decoded size. The decoder
// never writes more than this, whatever the text.
uint32_t CpxTupleField_Blob::FromBase64StringBufSize(std::string_view text) {
  uint64_t digits = 0;
  for (char c : text) digits += !IsBase64Space(c) && c != '=';
  return static_cast<uint32_t>(digits * 3 / 4);
}

bool CpxTupleField_Blob::FromBase64String(char* out, uint32_t& size, std::string_view text) {
  uint32_t bits = 0;  // undecoded bits, the newest in the low end
  int bit_count = 0;
  uint64_t digits = 0;
  unsigned padding = 0;
  size = 0;
  for (char c : text) {
    if (IsBase64Space(c)) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int v = Base64Value(c);
    if (v < 0 || padding > 0) return false;  // not a digit, or a digit after padding
    bits = (bits << 6 | static_cast<uint32_t>(v)) & 0x3fff;
    bit_count += 6;
    ++digits;
    if (bit_count >= 8) {
      bit_count -= 8;
      out[size++] = static_cast<char>(bits >> bit_count & 0xff);
    }
  }
  // A single digit in the last group carries no whole byte.
  if (digits % 4 == 1) return false;
  // Padding, when present, completes the last group exactly.
  if (padding > 0 && (digits % 4 == 0 || padding != 4 - digits % 4)) return false;
  // The bits after the last byte are zero in the encoding of any bytes.
  return (bits & ((1u << bit_count) - 1)) == 0;
}

}  // namespace vx
