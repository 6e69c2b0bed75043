// Blob operators. A blob's length is its stored byte count. No bad or
// missing input raises at run time: it gives a NULL output.
#include <algorithm>

#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/cpx_string_operators.h"

namespace vxi {

using namespace vx;

namespace {

using Blob = CpxTupleField_Blob;
using Str = CpxTupleField_String;
using Int = CpxTupleField_Integer;

}  // namespace

// ---- BlobLength ----

struct BlobLengthOperation {
  static int32_t Operation(std::string_view b) { return CpxSizeCast<int32_t>(b.size()); }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_BlobLength_Engine, BlobLength,
                   CpxExpressionOperator_Unary_Engine<Blob, Int, BlobLengthOperation>);

// ---- BlobExtract ----

// `length` bytes (to the end without it) from 1-based `start`. Never an
// empty blob: a start outside 1..length of the blob, or a length below 1,
// gives NULL; a length past the end is cut there.
struct BlobExtractOperation {
  static void Operation(CpxBytesOutput& out, std::string_view b, int32_t start,
                        std::optional<int32_t> length) {
    const int64_t rest = static_cast<int64_t>(b.size()) - start + 1;  // bytes from start on
    if (start < 1 || rest < 1) return out.SetNull();
    const int64_t n = length ? std::min<int64_t>(*length, rest) : rest;
    if (n < 1) return out.SetNull();
    out.Set(b.substr(static_cast<size_t>(start - 1), static_cast<size_t>(n)));
  }
};
VX_DEFINE_OPERATOR(
    CpxExpressionOperator_BlobExtract_Engine, BlobExtract,
    CpxExpressionOperator_Params_Engine<Blob, BlobExtractOperation, Blob, Int, CpxOptional<Int>>);

// ---- ConcatenateBlob ----

// NULL inputs are skipped; an empty total (only NULL or empty blobs) gives
// NULL rather than an empty blob, on purpose.
VX_DEFINE_OPERATOR(CpxExpressionOperator_ConcatenateBlob_Engine, ConcatenateBlob,
                   CpxExpressionOperator_Join_Engine<Blob, true>);

// ---- ToStringBlob, ToBlobString ----

// Upper-case hexadecimal, two digits a byte; the text may use either case.
// Text that is not hexadecimal (an odd length, another character) gives NULL.
struct ToHexOperation {
  static void Operation(CpxBytesOutput& out, std::string_view b) { out.Set(Blob::ToHexString(b)); }
};
struct FromHexOperation {
  static void Operation(CpxBytesOutput& out, std::string_view text) {
    std::string bytes;
    if (!Blob::FromHexString(bytes, text)) return out.SetNull();
    out.Set(bytes);
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_ToStringBlob_Engine, ToStringBlob,
                   CpxExpressionOperator_Params_Engine<Str, ToHexOperation, Blob>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_ToBlobString_Engine, ToBlobString,
                   CpxExpressionOperator_Params_Engine<Blob, FromHexOperation, Str>);

// ---- ToBase64StringBlob, ToBlobBase64 ----

// Base64 with '=' padding and no line breaks; the text may carry white
// space anywhere and may leave the padding out. Text that is not base64
// gives NULL.
struct ToBase64Operation {
  static void Operation(CpxBytesOutput& out, std::string_view b) {
    char* dst = out.Allocate(CpxSizeCast<uint32_t>(Blob::ToBase64StringBufSize(b.size())));
    Blob::ToBase64String(dst, b);
  }
};
struct FromBase64Operation {
  static void Operation(CpxBytesOutput& out, std::string_view text) {
    uint32_t size = 0;
    char* dst = out.Allocate(Blob::FromBase64StringBufSize(text));
    if (!Blob::FromBase64String(dst, size, text)) out.SetNull();
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_ToBase64StringBlob_Engine, ToBase64StringBlob,
                   CpxExpressionOperator_Params_Engine<Str, ToBase64Operation, Blob>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_ToBlobBase64_Engine, ToBlobBase64,
                   CpxExpressionOperator_Params_Engine<Blob, FromBase64Operation, Str>);

// ---- Equal, NotEqual, Less, LessOrEqual, Greater, GreaterOrEqual ----

// Byte-wise (unsigned bytes, a shorter prefix first), the order of blob
// fields in tuple comparisons; chained over consecutive pairs, any NULL
// giving NULL.
VX_DEFINE_OPERATOR(CpxExpressionOperator_Blob_Equal_Engine, EqualBlob,
                   CpxExpressionOperator_Equal_Engine<Blob>);
VX_DEFINE_BYTES_ORDER_OPERATORS(Blob, Blob);

}  // namespace vxi

namespace vx {

void RegisterBlobOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  constexpr const char* kStrict = "any NULL input gives NULL";
  constexpr const char* kText = "NULL input or rejected text gives NULL";
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_BlobLength_Engine, "1 blob", "1 integer", kStrict,
                  "Length in bytes."),
      VX_OPERATOR(CpxExpressionOperator_BlobExtract_Engine,
                  "1 blob, 1 integer (start), 1 integer (length, optional)", "1 blob",
                  "any NULL input, start outside the blob or length < 1 gives NULL",
                  "Bytes from 1-based start, cut at the end; never empty."),
      VX_OPERATOR(CpxExpressionOperator_ConcatenateBlob_Engine, "1+ blob", "1 blob",
                  "NULL inputs skipped; an empty total gives NULL", "The inputs joined in order."),
      VX_OPERATOR(CpxExpressionOperator_ToStringBlob_Engine, "1 blob", "1 string", kStrict,
                  "Upper-case hexadecimal text."),
      VX_OPERATOR(CpxExpressionOperator_ToBlobString_Engine, "1 string", "1 blob", kText,
                  "Blob from hexadecimal text (either case)."),
      VX_OPERATOR(CpxExpressionOperator_ToBase64StringBlob_Engine, "1 blob", "1 string", kStrict,
                  "Base64 text, padded, no line breaks."),
      VX_OPERATOR(CpxExpressionOperator_ToBlobBase64_Engine, "1 string", "1 blob", kText,
                  "Blob from base64 text (white space skipped, padding optional)."),
      VX_OPERATOR(CpxExpressionOperator_Blob_Equal_Engine, "2+ blob", "1 boolean", kStrict,
                  "True when each input equals the next."),
      VX_BYTES_ORDER_TABLE(Blob, "blob"),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
