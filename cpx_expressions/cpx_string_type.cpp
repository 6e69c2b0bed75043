// String operators. Texts are UTF-8; positions and lengths count characters
// except in two places that count bytes on purpose (Mid's start check and
// Instr's start check and result).
#include <libxml/xmlstring.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <locale>

#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/cpx_string_operators.h"

namespace vxi {

using namespace vx;

namespace {

using Str = CpxTupleField_String;
using Int = CpxTupleField_Integer;
using Bool = CpxTupleField_Boolean;
using Regex = CpxExpressionOperatorState_Engine_Regex;

// Field texts are zero-terminated (see cpx_string_operators.h).
const xmlChar* AsXml(std::string_view s) { return reinterpret_cast<const xmlChar*>(s.data()); }

// The number of characters, or -1 when the text is not UTF-8.
int64_t CharCount(std::string_view s) {
  if (CpxTupleField_String::IsPlainAscii(s)) return static_cast<int64_t>(s.size());
  return xmlUTF8Strlen(AsXml(s));
}

// The character after the one that starts at `p` (continuation bytes are
// 10xxxxxx; the terminator is not one, so a walk stops there).
const xmlChar* NextChar(const xmlChar* p) {
  ++p;
  while ((*p & 0xc0) == 0x80) ++p;
  return p;
}
// The character before `p`, not before `begin`.
const xmlChar* PreviousChar(const xmlChar* begin, const xmlChar* p) {
  --p;
  while (p > begin && (*p & 0xc0) == 0x80) --p;
  return p;
}

}  // namespace

// ---- Length ----

// Invalid UTF-8 gives NULL.
struct LengthOperation {
  static std::optional<int32_t> Operation(std::string_view s) {
    const int64_t n = CharCount(s);
    if (n < 0) return std::nullopt;
    return static_cast<int32_t>(n);
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Length_Engine, LengthString,
                   CpxExpressionOperator_Unary_Engine<Str, Int, LengthOperation>);

// ---- Substr ----

// 1-based characters from `start`, `length` of them (to the end without a
// length). A start of 0 or below is raised to 1 while the end stays
// start + length, so Substr('abcdef', -1, 3) is 'a': there is no counting
// from the right. A negative length gives NULL; a range wholly outside the
// text gives the empty string.
struct SubstrOperation {
  static void Operation(CpxBytesOutput& out, std::string_view s, int32_t start,
                        std::optional<int32_t> length) {
    // Plain ASCII (the usual case) is cut by byte offsets, with one scan
    // of the text rather than a count and then a walk.
    const bool ascii = CpxTupleField_String::IsPlainAscii(s);
    const int64_t len = ascii ? static_cast<int64_t>(s.size()) : xmlUTF8Strlen(AsXml(s));
    if (len < 0) return out.SetNull();
    const int64_t end = length ? int64_t{start} + *length : std::max<int64_t>(start, len + 1);
    if (end < start) return out.SetNull();
    if (start > len || end < 1) return out.Set({});
    const int64_t first = std::max<int64_t>(start, 1) - 1, last = std::min(end, len + 1) - 1;
    if (ascii) return out.Set(s.substr(static_cast<size_t>(first), static_cast<size_t>(last - first)));
    out.SetUTF8SubString(s, first, last);
  }
};
VX_DEFINE_OPERATOR(
    CpxExpressionOperator_String_Substr_Engine, SubstrString,
    CpxExpressionOperator_Params_Engine<Str, SubstrOperation, Str, Int, CpxOptional<Int>>);

// ---- Mid ----

// 1-based characters `start` to `end` inclusive (to the end without `end`).
// The start is checked against the byte length, not the character count:
// with multi-byte characters a start past the last character passes this
// check and then meets the substring writer's own refusal. Kept on purpose.
struct MidOperation {
  static void Operation(CpxBytesOutput& out, std::string_view s, int32_t start,
                        std::optional<int32_t> end) {
    if (start < 1 || start > static_cast<int64_t>(s.size())) return out.SetNull();
    if (end && *end < 1) return out.SetNull();
    out.SetUTF8SubString(s, start - 1, end ? *end : CharCount(s));
  }
};
VX_DEFINE_OPERATOR(
    CpxExpressionOperator_String_Mid_Engine, MidString,
    CpxExpressionOperator_Params_Engine<Str, MidOperation, Str, Int, CpxOptional<Int>>);

// ---- Left, Right ----

// The first (last) n characters. No checks of their own: a count the
// substring writer refuses (a negative one; for Right, one beyond the text)
// gives NULL, and Left cuts a count beyond the text to the whole text.
struct LeftOperation {
  static void Operation(CpxBytesOutput& out, std::string_view s, int32_t n) {
    out.SetUTF8SubString(s, 0, n);
  }
};
struct RightOperation {
  static void Operation(CpxBytesOutput& out, std::string_view s, int32_t n) {
    const int64_t len = CharCount(s);
    if (len < 0) return out.SetNull();
    out.SetUTF8SubString(s, len - n, len);
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Left_Engine, LeftString,
                   CpxExpressionOperator_Params_Engine<Str, LeftOperation, Str, Int>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Right_Engine, RightString,
                   CpxExpressionOperator_Params_Engine<Str, RightOperation, Str, Int>);

// ---- LeftTrim, RightTrim, Trim ----

// White space is exactly space, tab, CR and LF; other Unicode spaces stay.
// The whole text is walked character by character with xmlGetUTF8Char,
// remembering the first other character and where the last run of white
// space began; invalid UTF-8 anywhere gives NULL, for all three trims alike.
template <bool kLeft, bool kRight>
struct TrimOperation {
  static void Operation(CpxBytesOutput& out, std::string_view s) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const auto* const end = p + s.size();
    const unsigned char* first = end;    // the first other character
    const unsigned char* run = nullptr;  // where the trailing white space begins
    while (p < end) {
      int size = static_cast<int>(std::min<ptrdiff_t>(end - p, 4));
      const int c = xmlGetUTF8Char(p, &size);
      if (c < 0) return out.SetNull();
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
        if (!run) run = p;
      } else {
        run = nullptr;
        first = std::min(first, p);
      }
      p += size;
    }
    const auto* b = kLeft ? first : reinterpret_cast<const unsigned char*>(s.data());
    const auto* e = kRight && run ? std::max(run, b) : end;
    out.Set({reinterpret_cast<const char*>(b), static_cast<size_t>(e - b)});
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_LeftTrim_Engine, LeftTrimString,
                   CpxExpressionOperator_Params_Engine<Str, TrimOperation<true, false>, Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_RightTrim_Engine, RightTrimString,
                   CpxExpressionOperator_Params_Engine<Str, TrimOperation<false, true>, Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Trim_Engine, TrimString,
                   CpxExpressionOperator_Params_Engine<Str, TrimOperation<true, true>, Str>);

// ---- Concatenate ----

// Never NULL: NULL inputs add nothing, and all inputs NULL give ''.
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Concatenate_Engine, ConcatenateString,
                   CpxExpressionOperator_Join_Engine<Str, false>);

// ---- Instr ----

// The 1-based byte offset of the occurrence-th hit of `search` in `s`, or 0.
// The start counts characters (1 by default; negative counts from the
// right and scans backwards) while the result counts bytes; the start is
// also checked against the byte length. Both are kept on purpose. A start
// of 0 or an occurrence below 1 gives NULL; a start that cannot be placed
// (before the first character, or where the text stops being UTF-8) finds
// nothing.
struct InstrOperation {
  static std::optional<int32_t> Operation(std::string_view s, std::string_view search,
                                          std::optional<int32_t> start_in,
                                          std::optional<int32_t> occurrence_in) {
    const int32_t start = start_in.value_or(1);
    const int32_t occurrence = occurrence_in.value_or(1);
    if (start == 0 || occurrence < 1) return std::nullopt;
    const xmlChar* hit =
        start > 0 ? Forward(s, search, start, occurrence) : Backward(s, search, start, occurrence);
    return hit ? CpxSizeCast<int32_t>(hit - AsXml(s) + 1) : 0;
  }

 private:
  // From character start - 1, each hit moves the scan one character past
  // the hit's start, so overlapping hits count.
  static const xmlChar* Forward(std::string_view s, std::string_view search, int32_t start,
                                int32_t occurrence) {
    if (start >= static_cast<int64_t>(s.size())) return nullptr;
    const xmlChar* p = xmlUTF8Strpos(AsXml(s), start - 1);
    for (int32_t count = 0; p;) {
      const xmlChar* hit = xmlStrstr(p, AsXml(search));
      if (!hit) return nullptr;
      if (++count == occurrence) return hit;
      if (!*hit) return nullptr;  // an empty search text at the end: no further hit
      p = NextChar(hit);
    }
    return nullptr;
  }
  // From character len + start, one character back at a time down to the
  // first; at each point the first hit at or after it counts when it is not
  // the hit counted last.
  static const xmlChar* Backward(std::string_view s, std::string_view search, int32_t start,
                                 int32_t occurrence) {
    const int64_t from = CharCount(s) + start;
    if (from < 0) return nullptr;  // also for text that is not UTF-8 (count -1)
    const xmlChar* const begin = AsXml(s);
    const xmlChar* p = xmlUTF8Strpos(begin, static_cast<int>(from));
    const xmlChar* previous = nullptr;
    for (int32_t count = 0; p; p = p == begin ? nullptr : PreviousChar(begin, p)) {
      const xmlChar* hit = xmlStrstr(p, AsXml(search));
      if (!hit || hit == previous) continue;
      previous = hit;
      if (++count == occurrence) return hit;
    }
    return nullptr;
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Instr_Engine, InstrString,
                   CpxExpressionOperator_Params_Engine<Int, InstrOperation, Str, Str,
                                                       CpxOptional<Int>, CpxOptional<Int>>);

// ---- Replace ----

// Every occurrence of `search`, scanning left to right and going on after
// each inserted replacement (which is never scanned again). A NULL search
// leaves the text unchanged, as does an empty one (it has no occurrence to
// replace); a NULL replacement counts as ''.
struct ReplaceOperation {
  static void Operation(CpxBytesOutput& out, std::string_view s,
                        std::optional<std::string_view> search,
                        std::optional<std::string_view> replacement) {
    if (!search || search->empty()) return out.Set(s);
    const std::string_view from = *search;
    const std::string_view to = replacement.value_or(std::string_view{});
    uint64_t hits = 0;
    for (size_t at = s.find(from); at != s.npos; at = s.find(from, at + from.size())) ++hits;
    if (hits == 0) return out.Set(s);
    char* dst =
        out.Allocate(CpxSizeCast<uint32_t>(s.size() - hits * from.size() + hits * to.size()));
    size_t done = 0;
    for (size_t at = s.find(from); at != s.npos; at = s.find(from, done)) {
      dst = std::copy(s.data() + done, s.data() + at, dst);
      dst = std::copy(to.begin(), to.end(), dst);
      done = at + from.size();
    }
    std::copy(s.data() + done, s.data() + s.size(), dst);
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Replace_Engine, ReplaceString,
                   CpxExpressionOperator_Params_Engine<Str, ReplaceOperation, Str, CpxNullable<Str>,
                                                       CpxNullable<Str>>);

// ---- Upper, Lower ----

// Byte by byte through ctype<char> of the default locale: not UTF-8 aware,
// so in the classic locale only ASCII letters change and the bytes of
// multi-byte characters pass unchanged. The facet's mapping of all 256
// bytes is read once into a table (the process never changes the global
// locale), so a text costs a table lookup a byte, or, with the classic
// mapping, a few instructions per eight bytes.
template <bool kUpper>
struct CaseOperation {
  // The facet's mapping of every byte, and whether it is the classic one
  // (only the 26 ASCII letters change), read once.
  struct Mapping {
    std::array<char, 256> table;
    bool ascii_letters_only = true;
    Mapping() {
      const std::locale locale;
      const std::ctype<char>& ctype = std::use_facet<std::ctype<char>>(locale);
      for (unsigned b = 0; b < 256; ++b) table[b] = static_cast<char>(b);
      if constexpr (kUpper) {
        ctype.toupper(table.data(), table.data() + table.size());
      } else {
        ctype.tolower(table.data(), table.data() + table.size());
      }
      for (unsigned b = 0; b < 256; ++b) {
        const bool letter = kUpper ? (b >= 'a' && b <= 'z') : (b >= 'A' && b <= 'Z');
        if (table[b] != static_cast<char>(letter ? b ^ 0x20 : b)) ascii_letters_only = false;
      }
    }
  };
  // Eight bytes of the classic mapping at once: a byte whose high bit is
  // clear and that lies in the range of the letters to change has bit 0x20
  // flipped.
  static uint64_t MapWord(uint64_t w) {
    constexpr uint64_t kOnes = 0x0101010101010101u, kHigh = 0x8080808080808080u;
    constexpr uint64_t kFirst = kUpper ? 'a' : 'A', kLast = kUpper ? 'z' : 'Z';
    const uint64_t low7 = w & ~kHigh;
    const uint64_t in_range =
        (low7 + (0x80 - kFirst) * kOnes) & ~(low7 + (0x7f - kLast) * kOnes) & ~w & kHigh;
    return w ^ (in_range >> 2);
  }
  static void Operation(CpxBytesOutput& out, std::string_view s) {
    static const Mapping mapping;
    char* dst = out.Allocate(static_cast<uint32_t>(s.size()));
    const size_t n = s.size();
    if (mapping.ascii_letters_only && n >= 8) {
      // Whole words, then the last eight bytes again, mapped from the input
      // (the output is never the input's storage, see CpxBytesOutput).
      for (size_t i = 0; i + 8 <= n; i += 8) {
        uint64_t w;
        __builtin_memcpy(&w, s.data() + i, 8);
        w = MapWord(w);
        __builtin_memcpy(dst + i, &w, 8);
      }
      uint64_t w;
      __builtin_memcpy(&w, s.data() + n - 8, 8);
      w = MapWord(w);
      __builtin_memcpy(dst + n - 8, &w, 8);
      return;
    }
    for (size_t i = 0; i < n; ++i) dst[i] = mapping.table[static_cast<unsigned char>(s[i])];
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Upper_Engine, UpperString,
                   CpxExpressionOperator_Params_Engine<Str, CaseOperation<true>, Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Lower_Engine, LowerString,
                   CpxExpressionOperator_Params_Engine<Str, CaseOperation<false>, Str>);

// ---- Equal, NotEqual, Greater, GreaterOrEqual, Less, LessOrEqual ----

// Byte-wise over the stored bytes (unsigned, a shorter prefix first): for
// texts, which hold no zero byte, the order of strcmp. Equal compares each
// input with the first and stops at the first difference; the others chain
// over consecutive pairs with any NULL giving NULL.
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Equal_Engine, EqualString,
                   CpxExpressionOperator_AllEqual_Engine<Str>);
VX_DEFINE_BYTES_ORDER_OPERATORS(String, Str);

// ---- Max, Min, InList ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Max_Engine, MaxString,
                   CpxExpressionOperator_Max_Engine<Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Min_Engine, MinString,
                   CpxExpressionOperator_Min_Engine<Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_InList_Engine, InListString,
                   CpxExpressionOperator_InList_Engine<Str>);

// ---- Like ----

namespace {

// The LIKE-to-regex translation: an escaped % or _ stays a literal (for the
// regular expression), % becomes .* and _ becomes . (one byte). Every other
// character is copied, so regex metacharacters in a LIKE pattern keep their
// regex meaning. Built once for the process (initialisation of a function
// static is thread safe).
const boost::regex& LikeSearch() {
  static const boost::regex search("((?:\\\\%))|((?:\\\\_))|((?:%))|((?:_))");
  return search;
}
const std::string& LikeFormat() {
  static const std::string format("(?1\\\\%)(?2\\\\_)(?3.*)(?4.)");
  return format;
}

}  // namespace

// The whole text must match. A translated pattern that does not compile
// raises VX_SERVER_EXPRESSION_COULD_NOT_PARSE_REGEX_PATTERN.
struct LikeOperation {
  using State = Regex;
  static std::optional<bool> Operation(Regex& state, std::string_view text, std::string_view like) {
    if (!state.IsCurrent(like)) {
      std::string& translated = state.GetBuffer();
      translated.clear();
      boost::regex_replace(std::back_inserter(translated), like.data(), like.data() + like.size(),
                           LikeSearch(), LikeFormat(), boost::match_default | boost::format_all);
      std::string error;
      if (!state.Compile(like, translated, error)) {
        VX_RAISE(VX_SERVER_EXPRESSION_COULD_NOT_PARSE_REGEX_PATTERN, state.GetOperatorName(),
                 {"pattern", translated}, {"input_pattern", like}, {"error", error},
                 {"operation", state.GetOperatorName()});
      }
    }
    return state.Guarded([&] {
      return boost::regex_match(text.data(), text.data() + text.size(), state.GetMatch(),
                                state.GetRegex());
    });
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Like_Engine, LikeString,
                   CpxExpressionOperator_Params_Engine<Bool, LikeOperation, Str, Str>);

// ---- RegexMatchBoost, RegexSearchBoost, RegexFirstSearchBoost, RegexReplaceBoost ----

namespace {

// The state's expression for `pattern`, compiled when it changed. A pattern
// that does not compile raises (a text, not the LIKE message).
const boost::regex& CompiledPattern(Regex& state, std::string_view pattern) {
  std::string error;
  if (!state.IsCurrent(pattern) && !state.Compile(pattern, pattern, error)) {
    VX_RAISE_TEXT(
        "Operator '{operation}': the regular expression '{pattern}' does not compile: "
        "{error}",
        state.GetOperatorName(), {"operation", state.GetOperatorName()}, {"pattern", pattern},
        {"error", error});
  }
  return state.GetRegex();
}

}  // namespace

// The whole text matches (kWhole), or some part of it does.
template <bool kWhole>
struct RegexTestOperation {
  using State = Regex;
  static std::optional<bool> Operation(Regex& state, std::string_view text,
                                       std::string_view pattern) {
    const boost::regex& re = CompiledPattern(state, pattern);
    const char* const b = text.data();
    const char* const e = b + text.size();
    return state.Guarded([&] {
      return kWhole ? boost::regex_match(b, e, state.GetMatch(), re)
                    : boost::regex_search(b, e, state.GetMatch(), re);
    });
  }
};
// The text of the first match; NULL when nothing matches (a pattern that
// matches the empty string gives '').
struct RegexFirstSearchOperation {
  using State = Regex;
  static void Operation(Regex& state, CpxBytesOutput& out, std::string_view text,
                        std::string_view pattern) {
    const boost::regex& re = CompiledPattern(state, pattern);
    Regex::Match& m = state.GetMatch();
    const std::optional<bool> found = state.Guarded(
        [&] { return boost::regex_search(text.data(), text.data() + text.size(), m, re); });
    if (!found || !*found) return out.SetNull();
    out.Set({m[0].first, static_cast<size_t>(m[0].length())});
  }
};
// Every match replaced through `format` in Boost's Perl format syntax ($&,
// $1, ${12}, $`, $', $$, and escapes such as \n); text between matches is
// copied.
struct RegexReplaceOperation {
  using State = Regex;
  static void Operation(Regex& state, CpxBytesOutput& out, std::string_view text,
                        std::string_view pattern, std::string_view format) {
    const boost::regex& re = CompiledPattern(state, pattern);
    std::string& result = state.GetBuffer();
    result.clear();
    const std::optional<bool> done = state.Guarded([&] {
      boost::regex_replace(std::back_inserter(result), text.data(), text.data() + text.size(), re,
                           format.data(), boost::match_default | boost::format_default);
      return true;
    });
    if (!done) return out.SetNull();
    out.Set(result);
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_RegexMatchBoost_Engine, RegexMatchBoostString,
                   CpxExpressionOperator_Params_Engine<Bool, RegexTestOperation<true>, Str, Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_RegexSearchBoost_Engine, RegexSearchBoostString,
                   CpxExpressionOperator_Params_Engine<Bool, RegexTestOperation<false>, Str, Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_RegexFirstSearchBoost_Engine,
                   RegexFirstSearchBoostString,
                   CpxExpressionOperator_Params_Engine<Str, RegexFirstSearchOperation, Str, Str>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_RegexReplaceBoost_Engine, RegexReplaceBoostString,
                   CpxExpressionOperator_Params_Engine<Str, RegexReplaceOperation, Str, Str, Str>);

}  // namespace vxi

namespace vx {

void RegisterStringOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  constexpr const char* kStrict = "any NULL input gives NULL";
  constexpr const char* kText = "any NULL input or invalid UTF-8 gives NULL";
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_String_Length_Engine, "1 string", "1 integer", kText,
                  "Number of UTF-8 characters."),
      VX_OPERATOR(CpxExpressionOperator_String_Substr_Engine,
                  "1 string, 1 integer (start), 1 integer (length, optional)", "1 string",
                  "any NULL input, invalid UTF-8 or a negative length gives NULL",
                  "Characters from 1-based start; a start below 1 is raised to 1, the end kept."),
      VX_OPERATOR(CpxExpressionOperator_String_Mid_Engine,
                  "1 string, 1 integer (start), 1 integer (end, optional)", "1 string",
                  "any NULL input, start < 1 or past the byte length, or end < 1 gives NULL",
                  "Characters start to end inclusive, 1-based."),
      VX_OPERATOR(CpxExpressionOperator_String_Left_Engine, "1 string, 1 integer", "1 string",
                  "any NULL input or a negative count gives NULL", "The first n characters."),
      VX_OPERATOR(CpxExpressionOperator_String_Right_Engine, "1 string, 1 integer", "1 string",
                  "any NULL input or a count outside 0..length gives NULL",
                  "The last n characters."),
      VX_OPERATOR(CpxExpressionOperator_String_LeftTrim_Engine, "1 string", "1 string", kText,
                  "Without leading space, tab, CR and LF."),
      VX_OPERATOR(CpxExpressionOperator_String_RightTrim_Engine, "1 string", "1 string", kText,
                  "Without trailing space, tab, CR and LF."),
      VX_OPERATOR(CpxExpressionOperator_String_Trim_Engine, "1 string", "1 string", kText,
                  "Without leading and trailing space, tab, CR and LF."),
      VX_OPERATOR(CpxExpressionOperator_String_Concatenate_Engine, "1+ string", "1 string",
                  "never NULL: NULL inputs add nothing", "The inputs joined in order."),
      VX_OPERATOR(CpxExpressionOperator_String_Instr_Engine,
                  "2 string (text, search), 1 integer (start, optional), 1 integer "
                  "(occurrence, optional)",
                  "1 integer", "any NULL input, start 0 or occurrence < 1 gives NULL",
                  "1-based byte offset of the n-th hit from a character start; 0 when none."),
      VX_OPERATOR(CpxExpressionOperator_String_Replace_Engine,
                  "3 string (text, search, replacement)", "1 string",
                  "NULL text gives NULL; NULL search leaves the text; NULL replacement is ''",
                  "Every occurrence replaced, left to right."),
      VX_OPERATOR(CpxExpressionOperator_String_Upper_Engine, "1 string", "1 string", kStrict,
                  "ASCII letters to upper case, byte by byte."),
      VX_OPERATOR(CpxExpressionOperator_String_Lower_Engine, "1 string", "1 string", kStrict,
                  "ASCII letters to lower case, byte by byte."),
      VX_OPERATOR(CpxExpressionOperator_String_Equal_Engine, "2+ string", "1 boolean",
                  "a NULL before the first difference gives NULL",
                  "True when every input equals the first, byte-wise."),
      VX_BYTES_ORDER_TABLE(String, "string"),
      VX_OPERATOR(CpxExpressionOperator_String_Max_Engine, "1+ string", "1 string", kStrict,
                  "The byte-wise greatest input."),
      VX_OPERATOR(CpxExpressionOperator_String_Min_Engine, "1+ string", "1 string", kStrict,
                  "The byte-wise least input."),
      VX_OPERATOR(CpxExpressionOperator_String_InList_Engine, "2+ string (probe, list...)",
                  "1 boolean", "never NULL",
                  "True when the probe equals a list element; NULL matches only NULL."),
      VX_OPERATOR(CpxExpressionOperator_String_Like_Engine, "2 string (text, LIKE pattern)",
                  "1 boolean", "any NULL input or an over-complex match gives NULL",
                  "Whole-text match of a LIKE pattern (% any, _ one byte, \\% \\_ literal; "
                  "regex metacharacters keep their meaning)."),
      VX_OPERATOR(CpxExpressionOperator_String_RegexMatchBoost_Engine, "2 string (text, regex)",
                  "1 boolean", "any NULL input or an over-complex match gives NULL",
                  "True when the whole text matches (Perl syntax)."),
      VX_OPERATOR(CpxExpressionOperator_String_RegexSearchBoost_Engine, "2 string (text, regex)",
                  "1 boolean", "any NULL input or an over-complex match gives NULL",
                  "True when some part of the text matches (Perl syntax)."),
      VX_OPERATOR(CpxExpressionOperator_String_RegexFirstSearchBoost_Engine,
                  "2 string (text, regex)", "1 string",
                  "any NULL input, no match or an over-complex match gives NULL",
                  "The text of the first match."),
      VX_OPERATOR(CpxExpressionOperator_String_RegexReplaceBoost_Engine,
                  "3 string (text, regex, format)", "1 string",
                  "any NULL input or an over-complex match gives NULL",
                  "Every match replaced through a Perl-syntax format ($&, $1, ...)."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
