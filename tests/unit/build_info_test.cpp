// Checks the build information baked into vx_expressions at configure time.

#include <gtest/gtest.h>

#include <cctype>
#include <charconv>
#include <ctime>
#include <optional>
#include <regex>
#include <string>
#include <string_view>

#include "cpx_expressions/vx_expressions_build.h"

#ifndef VX_EXPECTED_VERSION
#error "VX_EXPECTED_VERSION must be defined by the build (PROJECT_VERSION)"
#endif

namespace {

struct Version {
  unsigned major = 0;
  unsigned minor = 0;
  unsigned patch = 0;
};

// Parses "major.minor.patch"; nullopt on anything else.
std::optional<Version> ParseVersion(std::string_view text) {
  Version v;
  unsigned* parts[] = {&v.major, &v.minor, &v.patch};
  const char* p = text.data();
  const char* end = text.data() + text.size();
  for (int i = 0; i < 3; ++i) {
    if (i > 0) {
      if (p == end || *p != '.') return std::nullopt;
      ++p;
    }
    auto [next, ec] = std::from_chars(p, end, *parts[i]);
    if (ec != std::errc() || next == p) return std::nullopt;
    p = next;
  }
  if (p != end) return std::nullopt;
  return v;
}

bool IsLowerHex(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (!std::isdigit(static_cast<unsigned char>(c)) && (c < 'a' || c > 'f')) return false;
  }
  return true;
}

bool EndsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// The abbreviated commit hash inside a `git describe --always --dirty` label:
// "abc1234", "abc1234-dirty", "v1.0-3-gabc1234", "v1.0-3-gabc1234-dirty".
// Empty when the label is a bare tag name (HEAD sits exactly on a tag).
std::string AbbreviatedHashOf(std::string_view label) {
  if (EndsWith(label, "-dirty")) label.remove_suffix(std::string_view("-dirty").size());
  if (IsLowerHex(label)) return std::string(label);
  const auto g = label.rfind("-g");
  if (g != std::string_view::npos && IsLowerHex(label.substr(g + 2))) {
    return std::string(label.substr(g + 2));
  }
  return {};
}

TEST(BuildInfo, VersionStringIsTheProjectVersion) {
  EXPECT_STREQ(vx_expressions_get_build_version_string(), VX_EXPECTED_VERSION);
}

TEST(BuildInfo, NumericVersionEncodesTheVersionString) {
  const auto v = ParseVersion(vx_expressions_get_build_version_string());
  ASSERT_TRUE(v.has_value()) << vx_expressions_get_build_version_string();
  ASSERT_LT(v->minor, 100u) << "minor does not fit the numeric encoding";
  ASSERT_LT(v->patch, 100u) << "patch does not fit the numeric encoding";
  EXPECT_EQ(vx_expressions_get_build_version(), v->major * 10000 + v->minor * 100 + v->patch);
}

TEST(BuildInfo, ModuleName) {
  EXPECT_STREQ(vx_expressions_get_build_module(), "vx_expressions");
}

TEST(BuildInfo, FullStringIsComposedOfTheParts) {
  const std::string full = vx_expressions_get_full_build_version_string();
  const std::string label = vx_expressions_get_build_label();
  const std::string id = vx_expressions_get_build_id();

  EXPECT_NE(full.find(label), std::string::npos) << full;
  EXPECT_NE(full.find(id), std::string::npos) << full;

  const std::string expected = std::string(vx_expressions_get_build_module()) + " " +
                               vx_expressions_get_build_version_string() + " (" + label + ", " +
                               id + ", built " + vx_expressions_get_build_date() + " by " +
                               vx_expressions_get_build_user() + ")";
  EXPECT_EQ(full, expected);
}

TEST(BuildInfo, IdIsACommitHashOrUnknown) {
  const std::string id = vx_expressions_get_build_id();
  const std::string label = vx_expressions_get_build_label();
  const std::string nogit = std::string(VX_EXPECTED_VERSION) + "-nogit";

  if (id == "unknown") {
    // No commit to describe: the label falls back to the version.
    EXPECT_EQ(label, nogit);
    return;
  }
  // SHA-1 or SHA-256 object names, as printed by `git rev-parse HEAD`.
  EXPECT_TRUE(id.size() == 40 || id.size() == 64) << id;
  EXPECT_TRUE(IsLowerHex(id)) << id;
  EXPECT_NE(label, nogit) << "a known commit must produce a git label";
}

TEST(BuildInfo, LabelNamesTheSameCommitAsId) {
  const std::string id = vx_expressions_get_build_id();
  const std::string label = vx_expressions_get_build_label();
  ASSERT_FALSE(label.empty());
  if (id == "unknown") GTEST_SKIP() << "built outside a git checkout";

  const std::string abbrev = AbbreviatedHashOf(label);
  if (abbrev.empty()) GTEST_SKIP() << "label is a tag name: " << label;
  EXPECT_GE(abbrev.size(), 4u) << label;
  EXPECT_EQ(id.compare(0, abbrev.size(), abbrev), 0)
      << "label " << label << " does not abbreviate " << id;
}

TEST(BuildInfo, DateIsIso8601Utc) {
  const std::string date = vx_expressions_get_build_date();
  static const std::regex kIso8601(R"(^(\d{4})-(\d{2})-(\d{2})T(\d{2}):(\d{2}):(\d{2})Z$)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(date, m, kIso8601)) << date;

  std::tm fields{};
  fields.tm_year = std::stoi(m[1]) - 1900;
  fields.tm_mon = std::stoi(m[2]) - 1;
  fields.tm_mday = std::stoi(m[3]);
  fields.tm_hour = std::stoi(m[4]);
  fields.tm_min = std::stoi(m[5]);
  fields.tm_sec = std::stoi(m[6]);

  // timegm normalises out-of-range fields (Feb 30 -> Mar 2, 24:00 -> next day);
  // a valid date converts back to exactly the same fields.
  std::tm copy = fields;
  const std::time_t when = timegm(&copy);
  ASSERT_NE(when, static_cast<std::time_t>(-1)) << date;
  std::tm back{};
  ASSERT_NE(gmtime_r(&when, &back), nullptr);
  EXPECT_EQ(back.tm_year, fields.tm_year) << date;
  EXPECT_EQ(back.tm_mon, fields.tm_mon) << date;
  EXPECT_EQ(back.tm_mday, fields.tm_mday) << date;
  EXPECT_EQ(back.tm_hour, fields.tm_hour) << date;
  EXPECT_EQ(back.tm_min, fields.tm_min) << date;
  EXPECT_EQ(back.tm_sec, fields.tm_sec) << date;

  // The library was built before this test runs (a day of slack for clock skew).
  EXPECT_GE(when, 0) << date;
  EXPECT_LE(when, std::time(nullptr) + 24 * 60 * 60) << date;
}

TEST(BuildInfo, UserIsAPrintableName) {
  const std::string user = vx_expressions_get_build_user();
  ASSERT_FALSE(user.empty());
  for (char c : user) {
    EXPECT_TRUE(std::isprint(static_cast<unsigned char>(c)) && c != ' ') << '"' << user << '"';
  }
}

}  // namespace
