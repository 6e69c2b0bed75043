// `cpxrun run`: reads rows (JSON Lines or CSV), runs each through an
// expression context and writes the output tuples in the same format.
#include "tools/cpxrun/run_command.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "cpx_expressions/cpx_expression_engine.h"
#include "support/storage.h"
#include "support/log.h"
#include "support/tuple.h"

namespace cpxrun {

namespace {

// Ordered, so that output objects keep the descriptor's field order.
using Json = nlohmann::ordered_json;

constexpr std::string_view kSignKey = "_sign";
constexpr std::string_view kTimestampKey = "_ts";
constexpr std::string_view kTupleKey = "_tuple";

// A fault in the current input record; the caller prefixes file and line.
class RowError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A fault that is not tied to a row (options, files); printed as is.
class SetupError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// User text inside a message: quoted, and cut short when long.
std::string Quoted(std::string_view text) {
  constexpr size_t kMax = 60;
  std::string out = "'";
  if (text.size() > kMax) {
    out.append(text.substr(0, kMax));
    out += "...";
  } else {
    out.append(text);
  }
  out += '\'';
  return out;
}

int64_t NowMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// ---- engine plumbing ----

// The context's owner for a command-line run: supplies the --group-by key.
class RunContextParent final : public vx::CpxExpressionContextParent_Engine {
 public:
  void SetGroupByKey(vx::Ptr<vx::CpxTupleKey_Engine> key) { m_key = std::move(key); }
  vx::Ptr<vx::CpxTupleKey_Engine> GetContextGroupByKey() const override { return m_key; }
  const vx::CpxTupleDescriptor* FindTupleDescriptor(const std::string&) const override {
    return nullptr;
  }

 private:
  vx::Ptr<vx::CpxTupleKey_Engine> m_key;
};

// Routes engine log messages to the command's error stream while it runs.
// The engine logs every error it raises before throwing it; this command
// reports a raised error itself, with the row's location, so the logged copy
// is held back and dropped once the exception is caught. Everything else is
// written out at the next Flush.
class LogCapture {
 public:
  explicit LogCapture(std::ostream& err) : m_err(err) {
    m_previous = vx::LogManager::Instance().SetSink(
        [this](const vx::LogMessage& message) { m_pending.push_back(message); });
  }
  ~LogCapture() {
    vx::LogManager::Instance().SetSink(std::move(m_previous));
    Flush();
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void DropRaised(const vx::LogMessage& raised) {
    const std::string text = raised.GetText();
    std::erase_if(m_pending, [&](const vx::LogMessage& m) {
      return m.GetSite() == raised.GetSite() && m.GetText() == text;
    });
  }
  void Flush() {
    for (const vx::LogMessage& m : m_pending)
      m_err << vx::LogLevelName(m.GetLevel()) << ' ' << m.Format() << '\n';
    m_pending.clear();
  }

 private:
  std::ostream& m_err;
  vx::LogManager::Sink m_previous;
  std::vector<vx::LogMessage> m_pending;
};

// ---- input ----

// Physical lines of the input, counted from 1, without the line break (a
// trailing '\r' of a CRLF file is dropped too, and a UTF-8 byte order mark
// at the very start).
class LineSource {
 public:
  explicit LineSource(std::istream& in) : m_in(in) {}

  bool Next(std::string& line) {
    if (!std::getline(m_in, line)) {
      if (m_in.bad()) throw RowError("read error on the input");
      return false;
    }
    ++m_line;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (m_line == 1 && line.starts_with("\xEF\xBB\xBF")) line.erase(0, 3);
    return true;
  }
  int64_t GetLine() const { return m_line; }
  // True when more input can be read without waiting.
  bool HasBufferedInput() const { return m_in.rdbuf()->in_avail() > 0; }

 private:
  std::istream& m_in;
  int64_t m_line = 0;
};

bool IsBlank(std::string_view line) {
  return line.find_first_not_of(" \t") == std::string_view::npos;
}

struct CsvCell {
  std::string text;
  bool quoted = false;
  // An empty unquoted cell: NULL, or "not given".
  bool IsNull() const { return !quoted && text.empty(); }
};

// RFC 4180 records. A quoted cell may span lines; its line breaks read as
// "\n". Empty lines between records are skipped.
class CsvReader {
 public:
  explicit CsvReader(LineSource& lines) : m_lines(lines) {}

  // The next record into `cells`; false at the end of the input. Sets
  // `start_line` before reading past the record's first line, so a
  // RowError thrown from here belongs to that line.
  bool Next(std::vector<CsvCell>& cells, int64_t& start_line) {
    do {
      if (!m_lines.Next(m_line)) return false;
    } while (m_line.empty());
    start_line = m_lines.GetLine();
    cells.clear();
    size_t i = 0;
    for (;;) {
      CsvCell cell;
      if (i < m_line.size() && m_line[i] == '"') {
        cell.quoted = true;
        ReadQuoted(i, cell.text, cells.size() + 1);
        if (i < m_line.size() && m_line[i] != ',')
          throw RowError("cell " + std::to_string(cells.size() + 1) +
                         ": unexpected text after the closing quote");
      } else {
        size_t end = m_line.find(',', i);
        if (end == std::string::npos) end = m_line.size();
        std::string_view raw(m_line.data() + i, end - i);
        if (raw.find('"') != std::string_view::npos)
          throw RowError("cell " + std::to_string(cells.size() + 1) +
                         ": a quote inside an unquoted cell (quote the whole cell and double "
                         "the quote)");
        cell.text.assign(raw);
        i = end;
      }
      cells.push_back(std::move(cell));
      if (i >= m_line.size()) break;
      ++i;  // the comma; a comma at the end of the line starts an empty last cell
    }
    return true;
  }

 private:
  // From the opening quote at `i` through the closing one; leaves `i` after it.
  void ReadQuoted(size_t& i, std::string& text, size_t cell_number) {
    ++i;
    for (;;) {
      if (i >= m_line.size()) {
        if (!m_lines.Next(m_line))
          throw RowError("cell " + std::to_string(cell_number) +
                         ": quoted cell is not closed before the end of the input");
        text += '\n';
        i = 0;
        continue;
      }
      const char c = m_line[i++];
      if (c != '"') {
        text += c;
      } else if (i < m_line.size() && m_line[i] == '"') {
        text += '"';
        ++i;
      } else {
        return;
      }
    }
  }

  LineSource& m_lines;
  std::string m_line;
};

// Sign and timestamp of the row being read.
struct RowAttributes {
  bool negative = false;
  std::optional<int64_t> timestamp;
};

void ReadSignText(std::string_view text, RowAttributes& attrs) {
  if (text == "+") {
    attrs.negative = false;
  } else if (text == "-") {
    attrs.negative = true;
  } else {
    throw RowError(std::string(kSignKey) + " must be \"+\" or \"-\", not " + Quoted(text));
  }
}

void ReadTimestampText(std::string_view text, RowAttributes& attrs) {
  int64_t ts = 0;
  if (!vx::CpxTupleField_Time::FromString(ts, text))
    throw RowError(std::string(kTimestampKey) + ": " + Quoted(text) +
                   " is not a time (YYYY-MM-DD HH:MM:SS[.ffffff] or @microseconds)");
  attrs.timestamp = ts;
}

const std::string& FieldName(const vx::CpxTuple& t, unsigned p) {
  return t.GetTD()->GetFieldNameByPos(p);
}

std::string FieldLabel(const vx::CpxTuple& t, unsigned p) {
  return std::string("field '") + FieldName(t, p) + "' (" +
         vx::CpxTupleFieldTypes::Name(t.GetFieldKind(p)) + ")";
}

void SetFieldText(vx::CpxTuple& t, unsigned p, std::string_view text) {
  if (!vx::SetFieldFromText(t, p, text))
    throw RowError(FieldLabel(t, p) + ": " + Quoted(text) + " is not a valid " +
                   vx::CpxTupleFieldTypes::Name(t.GetFieldKind(p)) + " value");
}

// A JSON number as a whole number of type T: integers in range, and floats
// that have no fractional part and fit.
template <class T>
T WholeNumber(const vx::CpxTuple& t, unsigned p, const Json& v) {
  constexpr T kMin = std::numeric_limits<T>::min();
  constexpr T kMax = std::numeric_limits<T>::max();
  auto out_of_range = [&] {
    return RowError(FieldLabel(t, p) + ": " + v.dump() + " is out of range");
  };
  if (v.is_number_unsigned()) {
    const uint64_t u = v.get<uint64_t>();
    if (u > static_cast<uint64_t>(kMax)) throw out_of_range();
    return static_cast<T>(u);
  }
  if (v.is_number_integer()) {
    const int64_t i = v.get<int64_t>();
    if constexpr (sizeof(T) < sizeof(int64_t)) {
      if (i < kMin || i > kMax) throw out_of_range();
    }
    return static_cast<T>(i);
  }
  const double d = v.get<double>();
  if (!std::isfinite(d) || std::trunc(d) != d)
    throw RowError(FieldLabel(t, p) + ": " + v.dump() + " is not a whole number");
  // kMin is a power of two, so both bounds are exact doubles.
  if (d < static_cast<double>(kMin) || d >= -static_cast<double>(kMin)) throw out_of_range();
  return static_cast<T>(d);
}

void SetFieldFromJson(vx::CpxTuple& t, unsigned p, const Json& v) {
  const vx::CpxFieldKind kind = t.GetFieldKind(p);
  switch (v.type()) {
    case Json::value_t::null:
      return;  // the row was cleared: the field stays NULL
    case Json::value_t::string:
      SetFieldText(t, p, v.get_ref<const std::string&>());
      return;
    case Json::value_t::boolean:
      if (kind != vx::CpxFieldKind::Boolean)
        throw RowError(FieldLabel(t, p) + ": a JSON boolean fits only a boolean field");
      vx::CpxTupleField_Boolean::SetValue(t, p, v.get<bool>());
      return;
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float:
      switch (kind) {
        case vx::CpxFieldKind::Integer:
          vx::CpxTupleField_Integer::SetValue(t, p, WholeNumber<int32_t>(t, p, v));
          return;
        case vx::CpxFieldKind::Long:
          vx::CpxTupleField_Long::SetValue(t, p, WholeNumber<int64_t>(t, p, v));
          return;
        case vx::CpxFieldKind::Float:
          vx::CpxTupleField_Float::SetValue(t, p, v.get<double>());
          return;
        default:
          throw RowError(FieldLabel(t, p) +
                         ": a JSON number fits only an integer, long or float field; give "
                         "other types as a string");
      }
    default:
      throw RowError(FieldLabel(t, p) + ": a JSON " + std::string(v.type_name()) +
                     " is not a field value");
  }
}

// "invalid JSON at column N: <reason>" from the parser's message, whose own
// line and column refer to the single row it was given.
std::string DescribeJsonError(const Json::parse_error& e) {
  std::string_view what = e.what();
  std::string_view reason = what;
  const size_t colon = what.find(": ");
  if (colon != std::string_view::npos) reason = what.substr(colon + 2);
  return "invalid JSON at column " + std::to_string(e.byte) + ": " + std::string(reason);
}

// ---- output ----

class OutputWriter {
 public:
  explicit OutputWriter(std::ostream& out) : m_out(out) {}
  virtual ~OutputWriter() = default;
  virtual void WriteHeader() {}
  virtual void WriteTuple(const vx::CpxTuple& t) = 0;

 protected:
  std::ostream& m_out;
};

class JsonLinesWriter final : public OutputWriter {
 public:
  JsonLinesWriter(std::ostream& out, bool name_tuples)
      : OutputWriter(out), m_name_tuples(name_tuples) {}

  void WriteTuple(const vx::CpxTuple& t) override {
    Json obj = Json::object();
    const vx::CpxTupleDescriptor* td = t.GetTD();
    if (m_name_tuples) obj[std::string(kTupleKey)] = td->GetName();
    for (unsigned p = 0; p < t.GetFieldCount(); ++p) {
      Json& value = obj[td->GetFieldNameByPos(p)];
      if (!t.HasFieldValue(p)) continue;  // stays null
      switch (t.GetFieldKind(p)) {
        case vx::CpxFieldKind::Boolean:
          value = vx::CpxTupleField_Boolean::GetValue(&t, p);
          break;
        case vx::CpxFieldKind::Integer:
          value = vx::CpxTupleField_Integer::GetValue(&t, p);
          break;
        case vx::CpxFieldKind::Long:
          value = vx::CpxTupleField_Long::GetValue(&t, p);
          break;
        case vx::CpxFieldKind::Float: {
          // JSON has no NaN or infinity; those keep their text form.
          const double d = vx::CpxTupleField_Float::GetValue(&t, p);
          if (std::isfinite(d)) {
            value = d;
          } else {
            value = vx::FieldToText(t, p);
          }
          break;
        }
        default:
          value = vx::FieldToText(t, p);
          break;
      }
    }
    if (!t.GetPositiveTuple()) obj[std::string(kSignKey)] = "-";
    if (t.GetTimestamp() != 0)
      obj[std::string(kTimestampKey)] = vx::CpxTupleField_Time::ToString(t.GetTimestamp());
    std::string line;
    try {
      line = obj.dump();  // doubles print in their shortest round-trip form
    } catch (const Json::type_error&) {
      throw RowError("output tuple '" + td->GetName() +
                     "' holds text that is not valid UTF-8, which JSON cannot carry");
    }
    line += '\n';
    m_out << line;
  }

 private:
  bool m_name_tuples;
};

class CsvWriter final : public OutputWriter {
 public:
  CsvWriter(std::ostream& out, const vx::CpxTupleDescriptor& td) : OutputWriter(out), m_td(td) {}

  void WriteHeader() override {
    std::string line;
    for (unsigned p = 0; p < m_td.GetFieldCount(); ++p) {
      if (p > 0) line += ',';
      AppendCell(line, m_td.GetFieldNameByPos(p));
    }
    line += '\n';
    m_out << line;
  }

  void WriteTuple(const vx::CpxTuple& t) override {
    std::string line;
    for (unsigned p = 0; p < t.GetFieldCount(); ++p) {
      if (p > 0) line += ',';
      if (t.HasFieldValue(p)) AppendCell(line, vx::FieldToText(t, p));  // NULL: empty cell
    }
    line += '\n';
    m_out << line;
  }

  // Quotes a cell that would otherwise read back differently: one holding a
  // comma, quote or line break, and the empty text (an empty unquoted cell
  // is NULL).
  static void AppendCell(std::string& line, std::string_view text) {
    if (!text.empty() && text.find_first_of(",\"\r\n") == std::string_view::npos) {
      line.append(text);
      return;
    }
    line += '"';
    for (char c : text) {
      if (c == '"') line += '"';
      line += c;
    }
    line += '"';
  }

 private:
  const vx::CpxTupleDescriptor& m_td;
};

// ---- the run ----

class Runner {
 public:
  Runner(const RunOptions& options, std::ostream& err, LogCapture& log)
      : m_options(options), m_err(err), m_log(log) {}

  int Run() {
    const bool csv = m_options.format == "csv";
    if (!csv && m_options.format != "jsonl")
      throw SetupError("unknown format " + Quoted(m_options.format) + " (expected jsonl or csv)");

    if (!LoadContext()) return 1;
    CheckDescriptors(csv);
    SetUpGroupBy();
    try {
      if (m_options.state_dir.empty()) {
        m_ctx->InitializeEvaluators();
      } else {
        OpenState();
      }
    } catch (const vx::ExceptionType& e) {
      ReportEngineError(e, "");
      return 1;
    }
    BuildInputList();

    // The input is opened first, so that a missing input leaves an existing
    // output file alone.
    std::istream* in = &std::cin;
    std::ifstream in_file;
    m_input_name = "stdin";
    if (m_options.input != "-") {
      m_input_name = m_options.input;
      in_file.open(m_options.input, std::ios::binary);
      if (!in_file)
        throw SetupError(m_options.input + ": cannot open input: " + std::strerror(errno));
      in = &in_file;
    }
    std::ostream* out = &std::cout;
    std::ofstream out_file;
    bool header_written = false;
    if (!m_options.output.empty()) {
      // A resumed run continues the output file from its committed length.
      std::ios::openmode mode = std::ios::binary | std::ios::trunc;
      if (m_resume_output) {
        std::error_code ec;
        std::filesystem::resize_file(m_options.output, *m_resume_output, ec);
        if (ec) throw SetupError(m_options.output + ": cannot cut the output back: " + ec.message());
        mode = std::ios::binary | std::ios::app;
        header_written = *m_resume_output > 0;
      }
      out_file.open(m_options.output, mode);
      if (!out_file)
        throw SetupError(m_options.output + ": cannot open output: " + std::strerror(errno));
      out = &out_file;
    }
    m_out = out;

    std::unique_ptr<OutputWriter> writer;
    if (csv) {
      writer =
          std::make_unique<CsvWriter>(*out, *m_ctx->GetOutputTupleDescriptors().GetObjectByPos(0));
    } else {
      writer =
          std::make_unique<JsonLinesWriter>(*out, m_ctx->GetOutputTupleDescriptors().GetSize() > 1);
    }
    m_writer = writer.get();
    if (!header_written) m_writer->WriteHeader();

    LineSource lines(*in);
    const bool ok = csv ? StreamCsv(lines, *out) : StreamJsonLines(lines, *out);
    if (m_options.progress && m_rows > 0) {
      --m_rows;  // the final report counts the last row again
      ReportProgress(true);
    }
    out->flush();
    if (ok && !*out) {
      m_err << (m_options.output.empty() ? std::string("stdout") : m_options.output)
            << ": cannot write output\n";
      return 1;
    }
    if (out_file.is_open()) {
      out_file.close();
      if (ok && !out_file) {
        m_err << m_options.output << ": cannot write output\n";
        return 1;
      }
    }
    return ok ? 0 : 1;
  }

 private:
  bool LoadContext() {
    try {
      m_ctx = vx::CpxExpressionContext_Engine::LoadFromFile(m_options.context_path, &m_parent);
    } catch (const vx::ExceptionType& e) {
      ReportEngineError(e, "");  // the message names the document and line
      return false;
    }
    return true;
  }

  void CheckDescriptors(bool csv) {
    const auto& inputs = m_ctx->GetInputTupleDescriptors();
    const auto& outputs = m_ctx->GetOutputTupleDescriptors();
    if (inputs.IsEmpty())
      throw SetupError(m_options.context_path +
                       ": the context has no input descriptor, so it cannot take rows");
    m_row_td = inputs.GetObjectByPos(0);
    for (std::string_view reserved : {kSignKey, kTimestampKey}) {
      unsigned pos;
      if (m_row_td->FindFieldPos(std::string(reserved), pos))
        throw SetupError(m_options.context_path + ": input descriptor '" + m_row_td->GetName() +
                         "' has a field named '" + std::string(reserved) +
                         "', which rows use for the tuple's " +
                         (reserved == kSignKey ? "sign" : "timestamp"));
    }
    if (csv) {
      if (outputs.GetSize() != 1)
        throw SetupError(m_options.context_path +
                         ": CSV output needs exactly one output descriptor; the context has " +
                         std::to_string(outputs.GetSize()));
      return;
    }
    for (const auto& td : outputs) {
      std::vector<std::string_view> reserved = {kSignKey, kTimestampKey};
      if (outputs.GetSize() > 1) reserved.push_back(kTupleKey);
      for (std::string_view name : reserved) {
        unsigned pos;
        if (td->FindFieldPos(std::string(name), pos))
          throw SetupError(m_options.context_path + ": output descriptor '" + td->GetName() +
                           "' has a field named '" + std::string(name) +
                           "', which JSON output uses for the tuple's own attributes");
      }
    }
  }

  void SetUpGroupBy() {
    if (m_options.group_by.empty()) return;
    auto key = vx::MakePtr<vx::CpxTupleKey_Engine>();
    key->SetDescriptorName(m_row_td->GetName());
    for (const std::string& field : m_options.group_by) {
      unsigned pos;
      if (!m_row_td->FindFieldPos(field, pos))
        throw SetupError("--group-by: " + Quoted(field) + " is not a field of input descriptor '" +
                         m_row_td->GetName() + "'");
      key->AddField(field, false);
    }
    m_parent.SetGroupByKey(std::move(key));
  }

  // The row tuple first; every further input descriptor gets its default.
  void BuildInputList() {
    m_row = m_row_td->CreateDefaultTuple();
    m_inputs = vx::MakePtr<vx::CpxTuplesList_Vector>();
    m_inputs->Add(m_row);
    const auto& inputs = m_ctx->GetInputTupleDescriptors();
    for (unsigned i = 1; i < inputs.GetSize(); ++i)
      m_inputs->Add(inputs.GetObjectByPos(i)->CreateDefaultTuple());
  }

  // Clears the row tuple before its fields are read.
  void BeginRow() {
    m_row->RemoveAllFields();
    m_attrs = RowAttributes{};
  }

  // Runs the row tuple and writes its outputs. Messages the engine logged
  // along the way (without raising) go out after the row.
  void RunRow() {
    m_row->SetTupleType(m_attrs.negative ? vx::Message::kNegative : vx::Message::kPositive);
    m_row->SetTimestamp(m_attrs.timestamp.value_or(0));
    const int64_t now = m_attrs.timestamp ? *m_attrs.timestamp : NowMicros();
    if (m_state) m_state->StartBatch();
    vx::Ptr<vx::CpxExpressionEvaluator_Engine> ev = m_ctx->GetEvaluator(*m_row);
    ev->Reset();
    ev->Execute(now, m_inputs);
    m_log.Flush();
    WriteOutputs(*ev);
    if (m_state) Commit();
    if (m_options.progress) ReportProgress(false);
  }

  // Rows so far and the rate, rewritten in place about once a second.
  void ReportProgress(bool last) {
    ++m_rows;
    if (!last && (m_rows & 1023) != 0) return;
    const auto now = std::chrono::steady_clock::now();
    if (!last && now - m_last_report < std::chrono::seconds(1)) return;
    m_last_report = now;
    const double seconds = std::chrono::duration<double>(now - m_started).count();
    m_err << "\r" << m_rows << " rows, "
          << static_cast<int64_t>(seconds > 0 ? static_cast<double>(m_rows) / seconds : 0)
          << " rows/s" << (last ? "\n" : "") << std::flush;
  }
  int64_t m_rows = 0;
  std::chrono::steady_clock::time_point m_started = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point m_last_report = m_started;

  void WriteOutputs(const vx::CpxExpressionEvaluator_Engine& evaluator) {
    const vx::CpxExpressionEvaluator_Engine* ev = &evaluator;
    // A stop operator leaves the next-operator index at the operator count
    // plus one: the row was filtered out. A jump past the end stores another
    // value and ends the run normally.
    if (ev->GetNextOperator() == ev->GetMaxOperator() + 1) return;
    const vx::CpxTuplesList_Vector* outputs = ev->GetOutputTuples();
    for (unsigned i = 0; i < outputs->GetSize(); ++i)
      m_writer->WriteTuple(*outputs->GetObjectByPos(i));
  }

  bool StreamJsonLines(LineSource& lines, std::ostream& out) {
    std::string line;
    for (;;) {
      if (!lines.HasBufferedInput()) out.flush();
      int64_t line_number = lines.GetLine() + 1;
      try {
        if (!lines.Next(line)) return true;
        line_number = lines.GetLine();
        if (IsBlank(line) || AlreadyCommitted(line_number)) continue;
        m_row_line = line_number;
        BeginRow();
        ReadJsonRow(line);
        RunRow();
      } catch (...) {
        return ReportRowError(line_number);
      }
    }
  }

  void ReadJsonRow(const std::string& line) {
    Json row;
    try {
      row = Json::parse(line);
    } catch (const Json::parse_error& e) {
      throw RowError(DescribeJsonError(e));
    }
    if (!row.is_object())
      throw RowError("a row must be a JSON object, not a JSON " + std::string(row.type_name()));
    for (const auto& [key, value] : row.items()) {
      if (key == kSignKey || key == kTimestampKey) {
        if (value.is_null()) continue;
        if (!value.is_string()) throw RowError(key + " must be a JSON string");
        const std::string& text = value.get_ref<const std::string&>();
        if (key == kSignKey) {
          ReadSignText(text, m_attrs);
        } else {
          ReadTimestampText(text, m_attrs);
        }
        continue;
      }
      unsigned pos;
      if (!m_row_td->FindFieldPos(key, pos))
        throw RowError("unknown field " + Quoted(key) + " (not in input descriptor '" +
                       m_row_td->GetName() + "')");
      SetFieldFromJson(*m_row, pos, value);
    }
  }

  // Where each CSV column goes.
  struct CsvColumn {
    enum Kind { kField, kSign, kTimestamp } kind = kField;
    unsigned pos = 0;
  };

  bool StreamCsv(LineSource& lines, std::ostream& out) {
    CsvReader reader(lines);
    std::vector<CsvCell> cells;
    std::vector<CsvColumn> columns;
    bool have_header = false;
    for (;;) {
      if (!lines.HasBufferedInput()) out.flush();
      int64_t line_number = lines.GetLine() + 1;
      try {
        if (!reader.Next(cells, line_number)) return true;
        if (!have_header) {
          columns = ReadCsvHeader(cells);
          have_header = true;
          continue;
        }
        if (AlreadyCommitted(line_number)) continue;
        m_row_line = line_number;
        if (cells.size() != columns.size())
          throw RowError("the row has " + std::to_string(cells.size()) +
                         " cells but the header has " + std::to_string(columns.size()));
        BeginRow();
        for (size_t c = 0; c < cells.size(); ++c) {
          const CsvCell& cell = cells[c];
          if (cell.IsNull()) continue;
          switch (columns[c].kind) {
            case CsvColumn::kField:
              SetFieldText(*m_row, columns[c].pos, cell.text);
              break;
            case CsvColumn::kSign:
              ReadSignText(cell.text, m_attrs);
              break;
            case CsvColumn::kTimestamp:
              ReadTimestampText(cell.text, m_attrs);
              break;
          }
        }
        RunRow();
      } catch (...) {
        return ReportRowError(line_number);
      }
    }
  }

  std::vector<CsvColumn> ReadCsvHeader(const std::vector<CsvCell>& cells) {
    std::vector<CsvColumn> columns;
    std::vector<bool> seen(m_row_td->GetFieldCount(), false);
    bool seen_sign = false, seen_ts = false;
    for (size_t c = 0; c < cells.size(); ++c) {
      const std::string& name = cells[c].text;
      CsvColumn column;
      bool duplicate = false;
      if (name.empty()) {
        throw RowError("header cell " + std::to_string(c + 1) + " is empty; it must name a field");
      } else if (name == kSignKey) {
        column.kind = CsvColumn::kSign;
        duplicate = std::exchange(seen_sign, true);
      } else if (name == kTimestampKey) {
        column.kind = CsvColumn::kTimestamp;
        duplicate = std::exchange(seen_ts, true);
      } else if (m_row_td->FindFieldPos(name, column.pos)) {
        duplicate = seen[column.pos];
        seen[column.pos] = true;
      } else {
        throw RowError("header names unknown field " + Quoted(name) +
                       " (not in input descriptor '" + m_row_td->GetName() + "')");
      }
      if (duplicate) throw RowError("header names " + Quoted(name) + " twice");
      columns.push_back(column);
    }
    return columns;
  }

  // Reports the exception in flight as a fault of the record at `line`;
  // returns false (the run stops).
  bool ReportRowError(int64_t line) {
    const std::string where = m_input_name + ":" + std::to_string(line) + ": ";
    try {
      throw;
    } catch (const vx::ExceptionType& e) {
      ReportEngineError(e, where);
    } catch (const std::exception& e) {
      m_log.Flush();
      m_err << where << e.what() << '\n';
    }
    return false;
  }

  void ReportEngineError(const vx::ExceptionType& e, const std::string& where) {
    m_log.DropRaised(e.GetMessage());
    m_log.Flush();
    m_err << where << e.what() << '\n';
  }

  // ---- state ----

  std::string CommandFingerprint() const {
    std::string f = m_options.context_path + "\n" + m_options.format + "\n";
    for (const std::string& g : m_options.group_by) f += g + ",";
    return f;
  }

  // Opens the store, checks that it belongs to this command, restores the
  // context's state and reads where the last committed row left off.
  void OpenState() {
    m_state = vx::CpxPersistentStorageManager::Open("BASIC", m_options.state_dir, m_options.sync);
    std::string fingerprint;
    if (m_state->GetMeta("command", fingerprint) && fingerprint != CommandFingerprint())
      throw SetupError(m_options.state_dir +
                       ": the state folder belongs to another command (context, format or "
                       "--group-by differ)");
    vx::CpxPersistentStorageKey key;
    key.AppendBlock(3, "ctx");
    m_ctx->InitializeEvaluators(nullptr, &m_state->GetBatch(), key, &m_cache, m_state.get());
    m_ctx->RestoreMessages();
    std::string value;
    if (m_state->GetMeta("input", value) && value == m_options.input &&
        m_state->GetMeta("line", value))
      m_resume_line = std::stoll(value);
    if (!m_options.output.empty() && m_state->GetMeta("output", value) &&
        value == m_options.output && m_state->GetMeta("output_length", value))
      m_resume_output = std::stoull(value);
  }

  // Commits the row: its state changes, the input position and the output
  // length, once the output is with the operating system (and on the disk
  // with `sync`).
  void Commit() {
    m_out->flush();
    if (!*m_out) throw RowError("cannot write output");
    vx::CpxPersistentStorageBatch& batch = m_state->GetBatch();
    if (!m_options.output.empty()) {
      if (m_options.sync) {
        const int fd = ::open(m_options.output.c_str(), O_WRONLY);
        if (fd >= 0) {
          ::fsync(fd);
          ::close(fd);
        }
      }
      batch.PutMeta("output", m_options.output);
      batch.PutMeta("output_length", std::to_string(static_cast<int64_t>(m_out->tellp())));
    }
    batch.PutMeta("command", CommandFingerprint());
    batch.PutMeta("input", m_options.input);
    batch.PutMeta("line", std::to_string(m_row_line));
    m_state->EndBatch();
  }

  // True for a record that a resumed run has already committed.
  bool AlreadyCommitted(int64_t line) const { return line <= m_resume_line; }

  std::unique_ptr<vx::CpxPersistentStorageManager> m_state;
  vx::CpxPersistentStorageMessageCache m_cache;
  int64_t m_resume_line = 0;
  std::optional<uint64_t> m_resume_output;
  int64_t m_row_line = 0;
  std::ostream* m_out = nullptr;

  const RunOptions& m_options;
  std::ostream& m_err;
  LogCapture& m_log;
  RunContextParent m_parent;
  vx::Ptr<vx::CpxExpressionContext_Engine> m_ctx;
  const vx::CpxTupleDescriptor* m_row_td = nullptr;
  vx::Ptr<vx::CpxTuple> m_row;
  vx::Ptr<vx::CpxTuplesList_Vector> m_inputs;
  RowAttributes m_attrs;
  OutputWriter* m_writer = nullptr;
  std::string m_input_name = "stdin";
};

}  // namespace

int RunCommand(const RunOptions& options, std::ostream& err) {
  LogCapture log(err);
  try {
    Runner runner(options, err, log);
    return runner.Run();
  } catch (const vx::ExceptionType& e) {
    log.DropRaised(e.GetMessage());
    log.Flush();
    err << e.what() << '\n';
  } catch (const std::exception& e) {
    log.Flush();
    err << e.what() << '\n';
  }
  return 1;
}

}  // namespace cpxrun
