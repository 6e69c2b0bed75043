// cpxrun run --state as separate processes: a stream split across two runs
// sharing the state folder, and a run killed with SIGKILL at random moments
// and started again, both give exactly the output of one uninterrupted run.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "tests/unit/test_util.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

// A grouped context with the stateful row-history operators.
const char* kContext = R"(<ExpressionContext Name="history" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance">
  <InputTuples><TupleDescriptor Name="In"><Field Name="k" Type="integer"/><Field Name="v" Type="integer"/></TupleDescriptor></InputTuples>
  <OutputTuples><TupleDescriptor Name="Out"><Field Name="k" Type="integer"/><Field Name="v" Type="integer"/>
    <Field Name="prev" Type="integer"/><Field Name="prev3" Type="integer"/><Field Name="prev_ts" Type="time"/></TupleDescriptor></OutputTuples>
  <ConstantTuples><TupleDescriptor Name="K"><Field Name="one" Type="integer" Default="1"/><Field Name="three" Type="integer" Default="3"/></TupleDescriptor></ConstantTuples>
  <Operators>
    <Operator Name="k" xsi:type="AddInteger"><InputParameters><TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="k"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="k"/></OutputParameters></Operator>
    <Operator Name="v" xsi:type="AddInteger"><InputParameters><TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="v"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="v"/></OutputParameters></Operator>
    <Operator Name="p1" xsi:type="Prev"><InputParameters><TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="v"/>
      <TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="one"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="prev"/></OutputParameters></Operator>
    <Operator Name="p3" xsi:type="Prev"><InputParameters><TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="v"/>
      <TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="three"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="prev3"/></OutputParameters></Operator>
    <Operator Name="pt" xsi:type="GetPrevTimestamp"><InputParameters><TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="v"/>
      <TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="one"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="prev_ts"/></OutputParameters></Operator>
  </Operators>
</ExpressionContext>
)";

class StateResume : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() / ("vx_resume_" + std::to_string(::getpid()) + "_" +
                                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
    Write("context.xml", kContext);
  }
  void TearDown() override { fs::remove_all(m_dir); }

  std::string Path(const std::string& name) const { return (m_dir / name).string(); }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(Path(name), std::ios::binary) << text;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  // Rows `first` .. `last`-1 of a deterministic stream over 37 groups, with
  // some negative rows (seen by the history but not remembered).
  static std::string Rows(int first, int last) {
    std::string text;
    for (int i = first; i < last; ++i) {
      text += "{\"k\":" + std::to_string(i % 37) + ",\"v\":" + std::to_string(i) +
              ",\"_ts\":\"@" + std::to_string(1000000LL * i) + "\"" +
              (i % 11 == 5 ? ",\"_sign\":\"-\"" : "") + "}\n";
    }
    return text;
  }

  pid_t Start(const std::vector<std::string>& args) const {
    std::vector<std::string> all = {VX_CPXRUN_PATH, "run", Path("context.xml"), "--group-by", "k"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }
  static int Wait(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
  }
  int RunToEnd(const std::vector<std::string>& args) const {
    int status = Wait(Start(args));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  fs::path m_dir;
};

TEST_F(StateResume, StreamSplitAcrossTwoProcessesMatchesOneRun) {
  const int n = 3000, split = 1234;
  Write("all.jsonl", Rows(0, n));
  Write("a.jsonl", Rows(0, split));
  Write("b.jsonl", Rows(split, n));
  ASSERT_EQ(RunToEnd({"--input", Path("all.jsonl"), "--output", Path("ref.jsonl")}), 0);
  ASSERT_EQ(RunToEnd({"--input", Path("a.jsonl"), "--output", Path("split.jsonl"), "--state",
                      Path("state")}),
            0);
  ASSERT_EQ(RunToEnd({"--input", Path("b.jsonl"), "--output", Path("split.jsonl"), "--state",
                      Path("state")}),
            0);
  const std::string ref = Read("ref.jsonl");
  EXPECT_EQ(std::count(ref.begin(), ref.end(), '\n'), n);
  EXPECT_NE(ref.find("\"prev3\":"), std::string::npos);
  EXPECT_EQ(Read("split.jsonl"), ref);
  // A second run of the same command has nothing left to do.
  ASSERT_EQ(RunToEnd({"--input", Path("b.jsonl"), "--output", Path("split.jsonl"), "--state",
                      Path("state")}),
            0);
  EXPECT_EQ(Read("split.jsonl"), ref);
}

TEST_F(StateResume, KilledRunsJoinIntoOneRun) {
  const int n = 40000;
  Write("all.jsonl", Rows(0, n));
  ASSERT_EQ(RunToEnd({"--input", Path("all.jsonl"), "--output", Path("ref.jsonl")}), 0);
  const std::vector<std::string> args = {"--input", Path("all.jsonl"), "--output",
                                         Path("out.jsonl"), "--state", Path("state")};
  std::mt19937 random(20261121);
  int kills = 0, finished = 0;
  for (int attempt = 0; attempt < 12 && !finished; ++attempt) {
    pid_t pid = Start(args);
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 250)(random)));
    if (kill(pid, SIGKILL) == 0) ++kills;
    int status = Wait(pid);
    finished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  if (!finished) {
    ASSERT_EQ(RunToEnd(args), 0);
  }
  EXPECT_GE(kills, 3);
  const std::string out = Read("out.jsonl");
  const std::string ref = Read("ref.jsonl");
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), n);
  EXPECT_TRUE(out == ref) << "the resumed output differs from one uninterrupted run";
}

}  // namespace
