// Time and interval text. The input is a selector byte, then a format (or
// an interval text), a value text and a zone name separated by NUL bytes.
// Times are read with the format in the zone and printed back; a time that
// a format read prints without fault. Day-to-second interval texts go
// through the general syntax and every qualifier parser: what reads prints
// its canonical text, and that text reads back to the same value.
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz/fuzz_common.h"
#include "support/interval_d2s.h"
#include "support/time_text.h"

namespace {

using namespace vx;

void Check(bool ok) {
  if (!ok) std::abort();
}

void CanonicalRoundTrip(const IntervalD2S& v) {
  if (!v.IsValid()) return;
  const std::string text = v.ToString();
  IntervalD2S back(text);
  Check(back.IsValid());
  back.canon();
  Check(back.IsValid() && back.GetValue() == v.GetValue() && back.ToString() == text);
}

void Intervals(std::string_view text) {
  IntervalD2S general(text);
  if (general.IsValid()) general.canon();
  CanonicalRoundTrip(general);
  using Parser = bool (IntervalD2S::*)(std::string_view);
  static const Parser kParsers[] = {
      &IntervalD2S::intd2s_parser_day,          &IntervalD2S::intd2s_parser_day2hour,
      &IntervalD2S::intd2s_parser_day2minute,   &IntervalD2S::intd2s_parser_day2second,
      &IntervalD2S::intd2s_parser_hour,         &IntervalD2S::intd2s_parser_hour2minute,
      &IntervalD2S::intd2s_parser_hour2second,  &IntervalD2S::intd2s_parser_minute,
      &IntervalD2S::intd2s_parser_minute2second, &IntervalD2S::intd2s_parser_second};
  for (Parser parse : kParsers) {
    IntervalD2S v;
    if ((v.*parse)(text)) {
      v.canon();
      CanonicalRoundTrip(v);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Setup();
  if (size == 0 || size > 4096) return 0;
  const uint8_t mode = data[0];
  std::string_view in(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::string parts[3];
  for (std::string& part : parts) {
    const size_t cut = in.find('\0');
    part = std::string(in.substr(0, cut));
    in = cut == std::string_view::npos ? std::string_view() : in.substr(cut + 1);
  }
  const std::string& format = parts[0];
  const std::string& text = parts[1];
  const std::string& zone = parts[2];
  const PRTimeParamFn params = (mode & 2) ? PR_LocalTimeParameters : PR_GMTParameters;
  switch (mode % 3) {
    case 0: {
      PRTime t = 0;
      if (TimeFromString(text.data(), text.size(), format.data(), format.size(), params, t,
                         zone.data(), zone.size()))
        TimeToString(t, format.data(), format.size(), params, zone.data(), zone.size());
      break;
    }
    case 1: {
      PRTime d = 0;
      if (IntervalFromString(text.data(), text.size(), format.data(), format.size(), d))
        IntervalToString(d, format.data(), format.size(), params);
      break;
    }
    default:
      Intervals(format);
      break;
  }
  return 0;
}
