// The engine's own test harness: an XML suite holds one expression context
// and a list of tests, each with input tuples and the output (and variable)
// tuples the context must produce. Tests run in document order through the
// ordinary evaluator path, so state carries from test to test like rows of a
// stream.
//
// <TestSuite Name="..." PersistentStorage="">
//   <GroupByKey TupleDescriptorRef="In"><TupleKeyFieldRef FieldRef="k"/></GroupByKey>
//   <TuplesStorages/> <Sequences/> <AuthenticationToken/>   (see below)
//   <ExpressionContext>...</ExpressionContext>
//   <Tests>
//     <Test Name="..." ReloadContext="false" Negative="false" Now="...">
//       <InputTuples>...</InputTuples> <OutputTuples>...</OutputTuples>
//       <VariableInputTuples/> <VariableOutputTuples/>
//     </Test>
//   </Tests>
// </TestSuite>
//
// A test without an "OutputTuples" element does not compare outputs (useful
// for negative tests); with one, the outputs must match it exactly (fields,
// timestamp and sign). A negative test passes when its run or its comparison
// fails. Not thread safe: a suite runs on one thread.
//
// With persistence (PersistentStorage="BASIC", or cpxrun test --persist) each
// test runs as if the server had restarted just before it: the evaluators are
// dropped, the store is opened again and every group and operator state is
// rebuilt from the stored records alone, then the test's row is run and its
// changes committed in one batch. Variable tuples, which the server's query
// keeps outside the store, carry over from test to test. The store lives in
// "storage/<suite file name>.<process id>" beside the suite and is removed
// when the suite ends.
//
// The suite is its context's parent: besides descriptors and the group-by
// key it offers the tuple storages, sequences and authentication token it
// declares (cpx_expression_test_environment.h). With persistence the
// sequences live in the suite's store too.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <memory>

#include "cpx_expressions/cpx_expression_engine.h"
#include "cpx_expressions/cpx_expression_test_environment.h"

namespace vx {

class CpxExpressionContext_TestSuite;

// A tuple list of a test: tuples read from the suite, each created from a
// descriptor of the suite's context.
using CpxExpressionTestTuplesList = std::vector<Ptr<CpxTuple>>;

class CpxExpressionContext_Test : public XmlNamedObject {
 public:
  explicit CpxExpressionContext_Test(CpxExpressionContext_TestSuite* suite) : m_suite(suite) {}

  const char* GetXmlElementName() const override { return "Test"; }
  bool IsReloadContext() const { return m_reload; }
  bool IsNegative() const { return m_negative; }
  const std::optional<int64_t>& GetNow() const { return m_now; }
  const CpxExpressionTestTuplesList& GetInputTuples() const { return m_inputs; }

  // Raises "tuples do not match" (or the size difference) at the first
  // difference, after logging the expected and actual tuples.
  void CompareResults(const CpxTuplesList& actual_outputs, const CpxTuplesList* variables) const;
  // For a negative test: the number of differences (0 = same results).
  unsigned CompareNegativeResults(const CpxTuplesList& actual_outputs) const;
  // Replaces the expected tuples by copies of the actual ones.
  void StoreResults(const CpxTuplesList& actual_outputs, const CpxTuplesList* variables);
  // Copies the test's variable input tuples into the context's variables.
  void ApplyVariableInputs(CpxTuplesList_Vector& variables) const;

 protected:
  void DoReadAttributes(XmlReaderContext& reader) override;
  void DoReadContent(XmlReaderContext& reader) override;
  void DoWriteAttributes(XmlWriterContext& writer) const override;
  void DoWriteContent(XmlWriterContext& writer) const override;

 private:
  void ReadTuples(XmlReaderContext& reader, const char* list_name, CpxTupleSetKind kind,
                  CpxExpressionTestTuplesList& list, bool& present);
  void CompareLists(const CpxExpressionTestTuplesList& expected, const CpxTuplesList& actual,
                    bool variables) const;

  CpxExpressionContext_TestSuite* m_suite;
  bool m_reload = false;
  bool m_negative = false;
  std::optional<int64_t> m_now;
  std::optional<std::string> m_now_text;
  CpxExpressionTestTuplesList m_inputs, m_outputs, m_variable_inputs, m_variable_outputs;
  bool m_has_inputs = false, m_has_outputs = false, m_has_variable_inputs = false,
       m_has_variable_outputs = false;
};

// The input-tuple list handed to Execute: serves the bound test's inputs.
class CpxTuplesList_TestInputTuples final : public CpxTuplesList {
 public:
  void SetTest(const CpxExpressionContext_Test* test) { m_test = test; }
  void ClearTest() { m_test = nullptr; }
  unsigned GetSize() const override {
    return m_test ? static_cast<unsigned>(m_test->GetInputTuples().size()) : 0;
  }
  CpxTuple* GetObjectByPos(unsigned p) const override {
    if (p >= GetSize()) XmlObject::RaiseIndexOutOfRange(p, GetSize(), "test input tuples");
    return m_test->GetInputTuples()[p].Get();
  }

 private:
  const CpxExpressionContext_Test* m_test = nullptr;
};

// What a suite run did.
struct CpxTestSuiteResult {
  unsigned passed = 0;
  unsigned failed = 0;
  std::vector<std::string> report;  // lines describing failures
};

class CpxExpressionContext_TestSuite : public XmlNamedObject,
                                       public CpxExpressionContextParent_Engine {
 public:
  enum class PostExecute { kCompare, kStore };

  CpxExpressionContext_TestSuite() = default;
  ~CpxExpressionContext_TestSuite() override;

  const char* GetXmlElementName() const override { return "TestSuite"; }
  // Reads a suite file; load errors carry the file and line.
  static Ptr<CpxExpressionContext_TestSuite> LoadFromFile(const std::string& path);
  // Reads a suite from text; `document_name` stands for the file in errors.
  static Ptr<CpxExpressionContext_TestSuite> LoadFromString(std::string text,
                                                            const std::string& document_name);

  // Runs every test. `reload` writes the context to XML and reads it back
  // first (as a test's ReloadContext does); `persistence` asks for the
  // persistent store.
  CpxTestSuiteResult Execute(PostExecute operation, bool reload, bool persistence);
  // The suite as XML (with stored results after a kStore run).
  std::string WriteToString() const;

  const std::string& GetPersistentStorage() const { return m_persistent_storage; }
  static const char* GetTestStorageFolder() { return "storage"; }
  CpxExpressionContext_Engine* GetContext() const { return m_context.Get(); }

  // CpxExpressionContextParent_Engine
  Ptr<CpxTupleKey_Engine> GetContextGroupByKey() const override { return m_group_by_key; }
  const CpxTupleDescriptor* FindTupleDescriptor(const std::string& name) const override;
  CpxNextvalStorage* GetNextvalStorage() const override;
  const CpxTuplesStorage* FindTuplesStorage(std::string_view name) const override {
    return m_environment.FindTuplesStorage(name);
  }
  const CpxExpressionAuthenticationToken* GetExpressionAuthenticationToken() const override {
    return m_environment.GetToken();
  }
  // A descriptor of the context's tuple set `kind`, or null.
  const CpxTupleDescriptor* FindDescriptor(CpxTupleSetKind kind, const std::string& name) const;

 protected:
  static Ptr<CpxExpressionContext_TestSuite> Load(XmlReaderContext& reader);
  bool IsNameRequired() const override { return false; }
  void DoReadAttributes(XmlReaderContext& reader) override;
  void DoReadContent(XmlReaderContext& reader) override;
  void DoWriteAttributes(XmlWriterContext& writer) const override;
  void DoWriteContent(XmlWriterContext& writer) const override;

 private:
  bool RunTest(CpxExpressionContext_Test& test, PostExecute operation,
               CpxTuplesList_TestInputTuples& inputs, std::vector<std::string>& log,
               CpxPersistentStorageManager* manager);
  // Drops the evaluators and rebuilds them from the store.
  void Restart(std::unique_ptr<CpxPersistentStorageManager>& manager,
               CpxPersistentStorageMessageCache& cache, const std::string& folder);

  std::string m_persistent_storage;
  Ptr<CpxTupleKey_Engine> m_group_by_key;
  // Mutable: drawing from a sequence changes it, through the const parent.
  mutable CpxExpressionTestEnvironment m_environment;
  Ptr<CpxExpressionContext_Engine> m_context;
  std::vector<Ptr<CpxExpressionContext_Test>> m_tests;
};

}  // namespace vx
