// cpxrun: runs expression test suites, streams rows through a context, and
// lists the registered operators.
#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_expression_test_suite.h"
#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/vx_expressions_build.h"
#include "support/limits.h"
#include "tools/cpxrun/run_command.h"

namespace {

struct TestOptions {
  std::vector<std::string> suites;
  bool reload = false;
  bool persist = false;
  bool store = false;
};

int RunTests(const TestOptions& options) {
  unsigned passed = 0, failed = 0;
  for (const std::string& path : options.suites) {
    try {
      vx::Ptr<vx::CpxExpressionContext_TestSuite> suite =
          vx::CpxExpressionContext_TestSuite::LoadFromFile(path);
      auto mode = options.store ? vx::CpxExpressionContext_TestSuite::PostExecute::kStore
                                : vx::CpxExpressionContext_TestSuite::PostExecute::kCompare;
      vx::CpxTestSuiteResult result = suite->Execute(mode, options.reload, options.persist);
      passed += result.passed;
      failed += result.failed;
      for (const std::string& line : result.report) std::cout << line << "\n";
      if (options.store) {
        std::ofstream out(path, std::ios::trunc);
        out << suite->WriteToString();
        if (!out) {
          std::cerr << path << ": cannot write the stored results\n";
          ++failed;
        }
      }
    } catch (const vx::ExceptionType& e) {
      // A suite that cannot be loaded or run counts as one failed test.
      ++failed;
      std::cout << "\n=================\n\tFAILED test\n=================\n"
                << path << ": " << e.what() << "\n";
    }
  }
  std::cout << passed << " passed, " << failed << " failed" << std::endl;
  return failed == 0 ? 0 : 1;
}

std::string MarkdownCell(const char* text) {
  std::string out;
  for (const char* c = text; *c; ++c) {
    if (*c == '|') out += '\\';
    out += *c;
  }
  return out;
}

int ListOperators(bool markdown) {
  const auto all = vx::CpxExpressionOperatorRegistry::Instance().GetAll();
  if (!markdown) {
    for (const vx::CpxOperatorInfo& info : all)
      std::printf("%-28s in: %-34s out: %s\n", info.type->local.c_str(), info.inputs, info.outputs);
    return 0;
  }
  std::printf(
      "# Operator reference\n\n"
      "Generated from the operator registry by `cpxrun operators --markdown`; the test suite\n"
      "checks that it is current. Each name is the `xsi:type` of an `Operator` element. Inputs\n"
      "and outputs give the parameter count and value type (`1+` one or more, `2+` two or\n"
      "more, `any` any type); the NULL rule says what a NULL input does.\n\n"
      "%zu operators.\n\n"
      "| Operator | Inputs | Outputs | NULL rule | Description |\n"
      "|---|---|---|---|---|\n",
      all.size());
  for (const vx::CpxOperatorInfo& info : all) {
    std::printf("| `%s` | %s | %s | %s | %s |\n", info.type->local.c_str(),
                MarkdownCell(info.inputs).c_str(), MarkdownCell(info.outputs).c_str(),
                MarkdownCell(info.null_rule).c_str(), MarkdownCell(info.description).c_str());
  }
  // Design notes, one per family: operators that share a note share a section.
  std::vector<const char*> notes;
  for (const vx::CpxOperatorInfo& info : all)
    if (info.note && std::find(notes.begin(), notes.end(), info.note) == notes.end())
      notes.push_back(info.note);
  if (!notes.empty()) std::printf("\n## Design notes\n");
  for (const char* note : notes) {
    std::string names;
    for (const vx::CpxOperatorInfo& info : all) {
      if (info.note != note) continue;
      names += (names.empty() ? "`" : ", `") + info.type->local + "`";
    }
    std::printf("\n### %s\n\n%s\n", names.c_str(), note);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  CLI::App app{"cpxrun: runs expression contexts and their test suites"};
  app.set_version_flag("--version", vx_expressions_get_full_build_version_string());
  app.require_subcommand(1);
  // The bounds may be given before or after the subcommand.
  app.fallthrough();
  vx::VxLimits limits;
  const char* group = "Limits (see docs/limits.md)";
  app.add_option("--max-steps", limits.max_steps_per_evaluation,
                 "Operators one evaluation may run before it stops with an error (0: no limit)")
      ->capture_default_str()
      ->group(group);
  app.add_option("--max-value-bytes", limits.max_value_bytes,
                 "Largest string, blob or XML value a tuple may hold")
      ->capture_default_str()
      ->group(group);
  app.add_option("--max-operators", limits.max_operators_per_context,
                 "Most operators one expression context may have")
      ->capture_default_str()
      ->group(group);
  app.add_option("--max-document-bytes", limits.max_document_bytes,
                 "Largest context, suite or row document that is read")
      ->capture_default_str()
      ->group(group);
  app.add_option("--max-document-depth", limits.max_document_depth,
                 "Deepest element nesting of a context, suite or row document")
      ->capture_default_str()
      ->group(group);

  TestOptions test;
  CLI::App* test_cmd = app.add_subcommand("test", "Run XML test suites; prints 'N passed, M failed'");
  test_cmd->add_option("suites", test.suites, "Test suite files")->required()->check(CLI::ExistingFile);
  test_cmd->add_flag("--reload", test.reload,
                     "Write each context to XML and read it back before running");
  test_cmd->add_flag("--persist", test.persist, "Run every suite with the persistent store");
  test_cmd->add_flag("--store", test.store, "Write the actual results into the suite files");

  cpxrun::RunOptions run;
  CLI::App* run_cmd = app.add_subcommand(
      "run", "Stream rows of the context's first input descriptor and print the output tuples");
  run_cmd->add_option("context", run.context_path, "Expression context file")
      ->required()
      ->check(CLI::ExistingFile);
  run_cmd->add_option("--input", run.input, "Input rows file, or - for standard input");
  run_cmd->add_option("--output", run.output, "Write output rows to this file");
  run_cmd->add_option("--format", run.format, "Row format")->check(CLI::IsMember({"jsonl", "csv"}));
  run_cmd->add_option("--group-by", run.group_by, "Group-by fields of the input descriptor")
      ->delimiter(',');
  run_cmd->add_option("--state", run.state_dir,
                      "Keep operator state and the input position in this folder; a run started "
                      "again with the same arguments resumes after the last committed row");
  run_cmd->add_flag("--sync", run.sync,
                    "With --state: flush every commit to the disk (survives a machine crash)");

  bool markdown = false;
  CLI::App* operators_cmd =
      app.add_subcommand("operators", "List every registered operator type with its shape");
  operators_cmd->add_flag("--markdown", markdown,
                          "Print the operator reference (docs/operators.md) instead");

  CLI11_PARSE(app, argc, argv);
  vx::SetVxLimits(limits);
  try {
    if (*test_cmd) return RunTests(test);
    if (*run_cmd) {
      run.progress = ::isatty(STDERR_FILENO) != 0;
      return cpxrun::RunCommand(run, std::cerr);
    }
    return ListOperators(markdown);
  } catch (const std::exception& e) {
    std::cerr << "cpxrun: " << e.what() << "\n";
    return 1;
  }
}
