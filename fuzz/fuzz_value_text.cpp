// Value text parsers. The first byte picks what is parsed: the text form of
// one of the nine value types, or hex or base64 blob text. Whatever parses
// must print to a text that parses back to the same value, and print the
// same again.
#include <cstdlib>

#include "fuzz/fuzz_common.h"

namespace {

using namespace vx;

const CpxTupleDescriptor& Descriptor() {
  static const Ptr<CpxTupleDescriptor> td = [] {
    Ptr<CpxTupleDescriptor> d = MakePtr<CpxTupleDescriptor>("V");
    for (unsigned k = 0; k < kFieldKindCount; ++k)
      d->AddField(MakePtr<CpxTupleField>("f" + std::to_string(k), static_cast<CpxFieldKind>(k)));
    return d;
  }();
  return *td;
}

void Check(bool ok) {
  if (!ok) std::abort();
}

void FieldText(std::string_view text, unsigned p) {
  Ptr<CpxTuple> t = Descriptor().CreateDefaultTuple();
  if (!SetFieldFromText(*t, p, text)) return;
  const std::string printed = FieldToText(*t, p);
  Ptr<CpxTuple> again = Descriptor().CreateDefaultTuple();
  Check(SetFieldFromText(*again, p, printed));
  Check(FieldToText(*again, p) == printed);
}

void Hex(std::string_view text) {
  std::string bytes;
  if (!CpxTupleField_Blob::FromHexString(bytes, text)) return;
  Check(bytes.size() * 2 == text.size());
  std::string back;
  Check(CpxTupleField_Blob::FromHexString(back, CpxTupleField_Blob::ToHexString(bytes)));
  Check(back == bytes);
}

void Base64(std::string_view text) {
  std::string bytes(CpxTupleField_Blob::FromBase64StringBufSize(text), '\0');
  uint32_t size = 0;
  if (!CpxTupleField_Blob::FromBase64String(bytes.data(), size, text)) return;
  Check(size <= bytes.size());
  bytes.resize(size);
  std::string encoded(CpxTupleField_Blob::ToBase64StringBufSize(size), '\0');
  encoded.resize(CpxTupleField_Blob::ToBase64String(encoded.data(), bytes));
  std::string back(CpxTupleField_Blob::FromBase64StringBufSize(encoded), '\0');
  uint32_t back_size = 0;
  Check(CpxTupleField_Blob::FromBase64String(back.data(), back_size, encoded));
  back.resize(back_size);
  Check(back == bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Setup();
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const unsigned pick = data[0] % (kFieldKindCount + 2);
  if (pick < kFieldKindCount) {
    FieldText(text, pick);
  } else if (pick == kFieldKindCount) {
    Hex(text);
  } else {
    Base64(text);
  }
  return 0;
}
