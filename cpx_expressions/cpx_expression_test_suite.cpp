#include "cpx_expressions/cpx_expression_test_suite.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>

namespace vx {

namespace {

int64_t CurrentMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool ReadBoolAttribute(XmlReaderContext& reader, const char* name, bool fallback) {
  std::optional<std::string> text = reader.GetAttribute(name);
  if (!text) return fallback;
  bool value = false;
  if (!CpxTupleField_Boolean::FromString(value, *text)) {
    VX_RAISE(XmlObject::msg_invalid_attribute_value, name, {"Value", *text}, {"attribute", name},
             {"line", reader.GetLine()}, {"file", reader.GetFileName()});
  }
  return value;
}

bool SameTuple(const CpxTuple& a, const CpxTuple& b) {
  return a.GetTD()->GetName() == b.GetTD()->GetName() && a.GetFieldCount() == b.GetFieldCount() &&
         a.Compare(b) == 0;
}

std::string TupleText(const CpxTuple& t) {
  auto writer = XmlWriterContext::ToMemory();
  WriteTupleXml(*writer, t);
  std::string xml = writer->Finish();
  // Drop the XML declaration and the namespace declaration of the fragment.
  size_t start = xml.find("<Tuple");
  if (start != std::string::npos) xml.erase(0, start);
  const std::string ns = std::string(" xmlns:xsi=\"") + kXsiNamespace + "\"";
  size_t at = xml.find(ns);
  if (at != std::string::npos) xml.erase(at, ns.size());
  while (!xml.empty() && (xml.back() == '\n' || xml.back() == ' ')) xml.pop_back();
  return xml;
}

}  // namespace

// ---- CpxExpressionContext_Test ----

void CpxExpressionContext_Test::DoReadAttributes(XmlReaderContext& reader) {
  XmlNamedObject::DoReadAttributes(reader);
  m_reload = ReadBoolAttribute(reader, "ReloadContext", false);
  m_negative = ReadBoolAttribute(reader, "Negative", false);
  m_now_text = reader.GetAttribute("Now");
  if (m_now_text) {
    int64_t now = 0;
    if (!CpxTupleField_Time::FromString(now, *m_now_text)) {
      VX_RAISE(XmlObject::msg_invalid_attribute_value, GetName(), {"Value", *m_now_text},
               {"attribute", "Now"}, {"line", reader.GetLine()}, {"file", reader.GetFileName()});
    }
    m_now = now;
  }
}

void CpxExpressionContext_Test::ReadTuples(XmlReaderContext& reader, const char* list_name,
                                           CpxTupleSetKind kind, CpxExpressionTestTuplesList& list,
                                           bool& present) {
  if (!reader.MoveToContent() || !reader.IsStartElement(list_name)) return;
  present = true;
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (empty) return;
  auto find = [this, kind](const std::string& name) { return m_suite->FindDescriptor(kind, name); };
  while (reader.MoveToContent() && reader.IsStartElement("Tuple"))
    list.push_back(ReadTupleXml(reader, find));
  reader.ReadEndElement(list_name);
}

void CpxExpressionContext_Test::DoReadContent(XmlReaderContext& reader) {
  ReadTuples(reader, "InputTuples", CpxTupleSetKind::Input, m_inputs, m_has_inputs);
  ReadTuples(reader, "OutputTuples", CpxTupleSetKind::Output, m_outputs, m_has_outputs);
  ReadTuples(reader, "VariableInputTuples", CpxTupleSetKind::Variable, m_variable_inputs,
             m_has_variable_inputs);
  ReadTuples(reader, "VariableOutputTuples", CpxTupleSetKind::Variable, m_variable_outputs,
             m_has_variable_outputs);
}

void CpxExpressionContext_Test::DoWriteAttributes(XmlWriterContext& writer) const {
  XmlNamedObject::DoWriteAttributes(writer);
  if (m_reload) writer.WriteAttribute("ReloadContext", "true");
  if (m_negative) writer.WriteAttribute("Negative", "true");
  if (m_now_text) writer.WriteAttribute("Now", *m_now_text);
}

void CpxExpressionContext_Test::DoWriteContent(XmlWriterContext& writer) const {
  auto write = [&writer](const char* name, const CpxExpressionTestTuplesList& list, bool present) {
    if (!present) return;
    writer.StartElement(name);
    for (const Ptr<CpxTuple>& t : list) WriteTupleXml(writer, *t);
    writer.EndElement();
  };
  write("InputTuples", m_inputs, m_has_inputs);
  write("OutputTuples", m_outputs, m_has_outputs);
  write("VariableInputTuples", m_variable_inputs, m_has_variable_inputs);
  write("VariableOutputTuples", m_variable_outputs, m_has_variable_outputs);
}

void CpxExpressionContext_Test::CompareLists(const CpxExpressionTestTuplesList& expected,
                                             const CpxTuplesList& actual, bool variables) const {
  const char* what = variables ? "variable tuples" : "output tuples";
  if (expected.size() != actual.GetSize()) {
    VX_RAISE_TEXT("Test '{test_name}': expected {expected_size} {what} but the run has "
                  "{actual_size}",
                  GetName(), {"test_name", GetName()}, {"expected_size", expected.size()},
                  {"actual_size", actual.GetSize()}, {"what", what});
  }
  for (unsigned pos = 0; pos < expected.size(); ++pos) {
    const CpxTuple& a = *actual.GetObjectByPos(pos);
    if (SameTuple(*expected[pos], a)) continue;
    const std::string where = "(test " + GetName() + ", pos " + std::to_string(pos) + "): ";
    const std::string kind = variables ? "variable tuple " : "tuple ";
    VX_LOG_TEXT(LogLevel::Info, "{text}", GetName(),
                {"text", "Expected " + kind + where + TupleText(*expected[pos])});
    VX_LOG_TEXT(LogLevel::Info, "{text}", GetName(),
                {"text", "Actual " + kind + where + TupleText(a)});
    if (variables) {
      VX_RAISE_TEXT("variable tuples do not match", GetName(), {"test_name", GetName()},
                    {"pos", pos});
    }
    VX_RAISE_TEXT("tuples do not match", GetName(), {"test_name", GetName()}, {"pos", pos});
  }
}

void CpxExpressionContext_Test::CompareResults(const CpxTuplesList& actual_outputs,
                                               const CpxTuplesList* variables) const {
  if (m_has_outputs) CompareLists(m_outputs, actual_outputs, false);
  if (m_has_variable_outputs && variables) CompareLists(m_variable_outputs, *variables, true);
}

unsigned CpxExpressionContext_Test::CompareNegativeResults(const CpxTuplesList& actual_outputs) const {
  if (!m_has_outputs) return 0;
  unsigned differences = 0;
  if (m_outputs.size() != actual_outputs.GetSize()) ++differences;
  for (unsigned pos = 0; pos < m_outputs.size() && pos < actual_outputs.GetSize(); ++pos)
    if (!SameTuple(*m_outputs[pos], *actual_outputs.GetObjectByPos(pos))) ++differences;
  return differences;
}

void CpxExpressionContext_Test::StoreResults(const CpxTuplesList& actual_outputs,
                                             const CpxTuplesList* variables) {
  m_outputs.clear();
  for (unsigned i = 0; i < actual_outputs.GetSize(); ++i)
    m_outputs.push_back(actual_outputs.GetObjectByPos(i)->Copy());
  m_has_outputs = true;
  if (variables && m_has_variable_outputs) {
    m_variable_outputs.clear();
    for (unsigned i = 0; i < variables->GetSize(); ++i)
      m_variable_outputs.push_back(variables->GetObjectByPos(i)->Copy());
  }
}

void CpxExpressionContext_Test::ApplyVariableInputs(CpxTuplesList_Vector& variables) const {
  if (!m_has_variable_inputs) return;
  for (const Ptr<CpxTuple>& given : m_variable_inputs) {
    for (unsigned i = 0; i < variables.GetSize(); ++i) {
      CpxTuple* target = variables.GetObjectByPos(i);
      if (target->GetTD()->GetName() != given->GetTD()->GetName()) continue;
      target->RemoveAllFields();
      for (unsigned f = 0; f < given->GetFieldCount(); ++f) {
        uint32_t size = 0;
        const void* v = given->GetFieldValue(f, size);
        if (v) target->SetFieldValue(f, size, v);
      }
      target->SetTimestamp(given->GetTimestamp());
      target->SetTupleType(given->GetTupleType());
    }
  }
}

// ---- CpxExpressionContext_TestSuite ----

CpxExpressionContext_TestSuite::~CpxExpressionContext_TestSuite() {
  if (m_context) m_context->ShutdownEvaluators();
}

Ptr<CpxExpressionContext_TestSuite> CpxExpressionContext_TestSuite::LoadFromFile(
    const std::string& path) {
  return Load(*XmlReaderContext::FromFile(path));
}

Ptr<CpxExpressionContext_TestSuite> CpxExpressionContext_TestSuite::LoadFromString(
    std::string text, const std::string& document_name) {
  return Load(*XmlReaderContext::FromMemory(std::move(text), document_name));
}

Ptr<CpxExpressionContext_TestSuite> CpxExpressionContext_TestSuite::Load(
    XmlReaderContext& document) {
  XmlReaderContext* reader = &document;
  Ptr<CpxExpressionContext_TestSuite> suite(new CpxExpressionContext_TestSuite());
  try {
    suite->XmlRead(*reader);
    if (reader->MoveToContent()) reader->RaiseUnexpected("end of document");
  } catch (ExceptionType& e) {
    SetFaultLocation(e, *reader);
    throw;
  }
  return suite;
}

const CpxTupleDescriptor* CpxExpressionContext_TestSuite::FindDescriptor(
    CpxTupleSetKind kind, const std::string& name) const {
  return m_context ? m_context->GetDescriptors(kind).Find(name) : nullptr;
}

const CpxTupleDescriptor* CpxExpressionContext_TestSuite::FindTupleDescriptor(
    const std::string& name) const {
  for (unsigned k = 0; k < kTupleSetKindCount; ++k)
    if (const CpxTupleDescriptor* td = FindDescriptor(static_cast<CpxTupleSetKind>(k), name))
      return td;
  return nullptr;
}

CpxNextvalStorage* CpxExpressionContext_TestSuite::GetNextvalStorage() const {
  return m_environment.GetSequences();
}

void CpxExpressionContext_TestSuite::DoReadAttributes(XmlReaderContext& reader) {
  XmlNamedObject::DoReadAttributes(reader);
  m_persistent_storage = reader.GetAttribute("PersistentStorage").value_or("");
}

void CpxExpressionContext_TestSuite::DoReadContent(XmlReaderContext& reader) {
  if (reader.MoveToContent() && reader.IsStartElement("GroupByKey")) {
    m_group_by_key = MakePtr<CpxTupleKey_Engine>("GroupByKey");
    m_group_by_key->XmlRead(reader);
  }
  m_environment.ReadXml(reader);
  reader.ExpectStartElement(CpxExpressionContext_Engine::GetElementName());
  m_context = MakePtr<CpxExpressionContext_Engine>("exp_context", this);
  m_context->XmlRead(reader);
  m_context->SetName("exp_context");
  m_context->EnsureValid();
  if (!reader.MoveToContent() || !reader.IsStartElement("Tests")) return;
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (empty) return;
  while (reader.MoveToContent() && reader.IsStartElement("Test")) {
    Ptr<CpxExpressionContext_Test> test = MakePtr<CpxExpressionContext_Test>(this);
    test->XmlRead(reader);
    m_tests.push_back(std::move(test));
  }
  reader.ReadEndElement("Tests");
}

void CpxExpressionContext_TestSuite::DoWriteAttributes(XmlWriterContext& writer) const {
  XmlNamedObject::DoWriteAttributes(writer);
  if (!m_persistent_storage.empty()) writer.WriteAttribute("PersistentStorage", m_persistent_storage);
}

void CpxExpressionContext_TestSuite::DoWriteContent(XmlWriterContext& writer) const {
  if (m_group_by_key) m_group_by_key->XmlWrite(writer);
  m_environment.WriteXml(writer);
  m_context->XmlWrite(writer);
  writer.StartElement("Tests");
  for (const Ptr<CpxExpressionContext_Test>& t : m_tests) t->XmlWrite(writer);
  writer.EndElement();
}

std::string CpxExpressionContext_TestSuite::WriteToString() const {
  auto writer = XmlWriterContext::ToMemory();
  XmlWrite(*writer);
  return writer->Finish();
}

bool CpxExpressionContext_TestSuite::RunTest(CpxExpressionContext_Test& test, PostExecute operation,
                                             CpxTuplesList_TestInputTuples& inputs,
                                             std::vector<std::string>& log,
                                             CpxPersistentStorageManager* store) {
  // Messages of one test are kept and shown only when the test fails.
  LogManager& manager = LogManager::Instance();
  LogLevel previous_level = manager.GetMinLevel();
  manager.SetMinLevel(LogLevel::Info);
  LogManager::Sink previous = manager.SetSink([&log](const LogMessage& m) {
    log.push_back(std::string(LogLevelName(m.GetLevel())) + " " + m.Format());
  });
  bool ok = true;
  try {
    if (CpxTuplesList_Vector* variables = m_context->GetVariableTuples())
      test.ApplyVariableInputs(*variables);
    inputs.SetTest(&test);
    if (store) store->StartBatch();
    Ptr<CpxExpressionEvaluator_Engine> ev;
    if (test.GetInputTuples().empty()) {
      if (m_context->GetGroupByKey())
        VX_RAISE_TEXT("Test '{test_name}' of a grouped context has no input tuple", test.GetName(),
                      {"test_name", test.GetName()});
      Ptr<CpxTuple> none = m_context->GetInputTupleDescriptors().IsEmpty()
                               ? nullptr
                               : m_context->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
      if (none) {
        ev = m_context->GetEvaluator(*none);
      } else {
        Ptr<CpxTupleDescriptor> empty_td = MakePtr<CpxTupleDescriptor>("none");
        ev = m_context->GetEvaluator(*empty_td->CreateDefaultTuple());
      }
    } else {
      ev = m_context->GetEvaluator(*test.GetInputTuples()[0]);
    }
    ev->Reset();
    const int64_t now = test.GetNow() ? *test.GetNow() : CurrentMicros();
    ev->Execute(now, &inputs);
    if (store) store->EndBatch();
    if (operation == PostExecute::kStore) {
      test.StoreResults(*ev->GetOutputTuples(), m_context->GetVariableTuples());
    } else if (test.IsNegative()) {
      if (test.CompareNegativeResults(*ev->GetOutputTuples()) == 0) ok = false;
    } else {
      test.CompareResults(*ev->GetOutputTuples(), m_context->GetVariableTuples());
    }
  } catch (const ExceptionType& e) {
    if (test.IsNegative() && operation == PostExecute::kCompare) {
      VX_LOG_TEXT(LogLevel::Info, "\tNegative test succeeded - there was an error.", test.GetName());
    } else {
      ok = false;
    }
  }
  inputs.ClearTest();
  manager.SetSink(std::move(previous));
  manager.SetMinLevel(previous_level);
  if (!ok) {
    log.push_back(test.IsNegative() ? "\tNegative TESTS FAILED: the run succeeded"
                                    : "\tPositive TESTS FAILED");
  }
  return ok;
}

void CpxExpressionContext_TestSuite::Restart(std::unique_ptr<CpxPersistentStorageManager>& manager,
                                             CpxPersistentStorageMessageCache& cache,
                                             const std::string& folder) {
  // Variable tuples are kept by the query, not by the store.
  std::vector<Ptr<CpxTuple>> variables;
  if (CpxTuplesList_Vector* v = m_context->GetVariableTuples())
    for (unsigned i = 0; i < v->GetSize(); ++i) variables.push_back(v->GetObjectByPos(i)->Copy());
  m_context->ShutdownEvaluators();
  CpxNextvalStorage_Sequences* sequences = m_environment.GetSequences();
  if (sequences) sequences->AttachStore(nullptr);
  manager.reset();
  manager = CpxPersistentStorageManager::Open("BASIC", folder);
  if (sequences) sequences->AttachStore(manager.get());
  cache = CpxPersistentStorageMessageCache();
  CpxPersistentStorageKey key;
  key.AppendBlock(11, "exp_context");
  m_context->InitializeEvaluators(nullptr, &manager->GetBatch(), key, &cache, manager.get());
  if (CpxTuplesList_Vector* v = m_context->GetVariableTuples()) {
    for (unsigned i = 0; i < v->GetSize() && i < variables.size(); ++i) {
      CpxTuple* target = v->GetObjectByPos(i);
      for (unsigned f = 0; f < target->GetFieldCount(); ++f) {
        uint32_t size = 0;
        const void* value = variables[i]->GetFieldValue(f, size);
        if (value) {
          target->SetFieldValue(f, size, value);
        } else {
          target->ClearFieldValue(f);
        }
      }
    }
  }
  m_context->RestoreMessages();
}

CpxTestSuiteResult CpxExpressionContext_TestSuite::Execute(PostExecute operation, bool reload,
                                                           bool persistence) {
  CpxTestSuiteResult result;
  if (!m_persistent_storage.empty() && m_persistent_storage != "BASIC") {
    VX_RAISE_TEXT("Suite '{suite}': unknown persistent storage kind '{kind}' (only BASIC exists)",
                  GetName(), {"suite", GetName()}, {"kind", m_persistent_storage});
  }
  const bool persist = persistence || m_persistent_storage == "BASIC";
  bool any_reload = reload;
  for (const auto& t : m_tests) any_reload = any_reload || t->IsReloadContext();
  if (any_reload) {
    std::string xml = m_context->WriteToString();
    m_context = CpxExpressionContext_Engine::LoadFromString(xml, GetSourceFile() + " (reloaded)",
                                                            this, "exp_context");
  }
  m_context->InitializeEvaluators();
  m_environment.ResetSequences();
  std::string folder;
  std::unique_ptr<CpxPersistentStorageManager> manager;
  CpxPersistentStorageMessageCache cache;
  if (persist) {
    const std::string file = GetSourceFile();
    const size_t slash = file.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : file.substr(0, slash);
    const std::string stem = slash == std::string::npos ? file : file.substr(slash + 1);
    folder = dir + "/" + GetTestStorageFolder() + "/" + stem + "." + std::to_string(::getpid());
    CpxPersistentStorageManager::Destroy(folder);
  }
  CpxTuplesList_TestInputTuples inputs;
  for (const Ptr<CpxExpressionContext_Test>& test : m_tests) {
    std::vector<std::string> log;
    bool ok = false;
    try {
      if (persist) Restart(manager, cache, folder);
      ok = RunTest(*test, operation, inputs, log, manager.get());
    } catch (const ExceptionType& e) {
      log.push_back(std::string("ERROR ") + e.what());
    }
    if (ok) {
      ++result.passed;
      continue;
    }
    ++result.failed;
    result.report.push_back("\n=================\n\tFAILED test\n=================\n" +
                            GetSourceFile() + ": test '" + test->GetName() + "'" +
                            (test->IsNegative() ? " (negative)" : ""));
    for (std::string& line : log) result.report.push_back("  " + line);
  }
  m_context->ShutdownEvaluators();
  if (persist) {
    if (CpxNextvalStorage_Sequences* sequences = m_environment.GetSequences())
      sequences->AttachStore(nullptr);
    manager.reset();
    CpxPersistentStorageManager::Destroy(folder);
    // Leave no empty storage folder behind.
    std::error_code ec;
    std::filesystem::remove(folder.substr(0, folder.find_last_of('/')), ec);
  }
  return result;
}

}  // namespace vx
