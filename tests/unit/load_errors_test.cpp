// Every bad context under tests/load_errors fails to load with its own
// message, naming the file and the line of the element at fault, and never
// crashes. expected.txt lists: file, line, a text the message must contain.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/unit/test_util.h"

namespace vx {
namespace {

struct Expected {
  std::string file;
  int line;
  std::string text;
};

std::vector<Expected> ReadExpected() {
  std::vector<Expected> all;
  std::ifstream in(std::string(VX_SOURCE_DIR) + "/tests/load_errors/expected.txt");
  std::string row;
  while (std::getline(in, row)) {
    if (row.empty()) continue;
    std::istringstream fields(row);
    Expected e;
    std::string line;
    std::getline(fields, e.file, '\t');
    std::getline(fields, line, '\t');
    std::getline(fields, e.text);
    e.line = std::stoi(line);
    all.push_back(e);
  }
  return all;
}

TEST(LoadErrors, EachBadContextFailsWithItsTextAndLine) {
  testing::QuietLog quiet;
  const std::vector<Expected> all = ReadExpected();
  ASSERT_GE(all.size(), 15u);
  for (const Expected& e : all) {
    const std::string path = std::string(VX_SOURCE_DIR) + "/tests/load_errors/" + e.file;
    SCOPED_TRACE(e.file);
    try {
      CpxExpressionContext_Engine::LoadFromFile(path, nullptr);
      ADD_FAILURE() << "loaded without error";
    } catch (const ExceptionType& ex) {
      const std::string what = ex.what();
      EXPECT_NE(what.find(e.text), std::string::npos) << what;
      EXPECT_EQ(what.rfind(path + ":" + std::to_string(e.line) + ": ", 0), 0u) << what;
    }
  }
}

}  // namespace
}  // namespace vx
