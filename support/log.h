// Logging, message sites and the engine's exception type.
//
// Every error the engine reports is a `LogMessage`: a message site (the
// definition or literal text, its level, the raising function and source
// file), the time, the thread, the object concerned and named values that
// fill the `{name}` placeholders of the text. A raise writes the message to
// the `LogManager`, flushes it and throws an `ExceptionType` carrying it.
//
// Message sites are process-wide statics prepared once behind an atomic guard
// word, so the hot path never pays for building them and no lock is taken.
#pragma once

#include <prtypes.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vx {

enum class LogLevel { Trace = 0, Debug, Info, Warning, Error, Fatal };
const char* LogLevelName(LogLevel level);

// A message of the server's message library: an identifier, a text with
// `{name}` placeholders and a default level.
struct LogMessageDefinition {
  const char* id;
  const char* text;
  LogLevel level;
};
using LogMessageDefinitionFunc = LogMessageDefinition (*)();

// One place in the code that logs or raises. Declared `static` at the raise
// point; zero-initialised, then prepared on first use under the guard word
// (0 = new, 1 = being built, 2 = ready).
class LogMessageSite {
 public:
  constexpr LogMessageSite() = default;
  LogMessageSite(const LogMessageSite&) = delete;
  LogMessageSite& operator=(const LogMessageSite&) = delete;

  void Prepare(LogMessageDefinitionFunc definition, const char* function, const char* file,
               int line);
  void Prepare(const char* literal_text, LogLevel level, const char* function, const char* file,
               int line);

  const char* GetId() const { return m_id; }
  const char* GetText() const { return m_text; }
  LogLevel GetLevel() const { return m_level; }
  const char* GetFunction() const { return m_function; }
  const char* GetFile() const { return m_file; }
  int GetLine() const { return m_line; }

 private:
  template <class Build>
  void PrepareOnce(Build&& build);

  PRInt32 m_guard = 0;
  const char* m_id = "";
  const char* m_text = "";
  LogLevel m_level = LogLevel::Error;
  const char* m_function = "";
  const char* m_file = "";
  int m_line = 0;
};

// A named value attached to a message; any streamable scalar or text.
struct LogValue {
  std::string name;
  std::string value;

  LogValue(std::string n, std::string v) : name(std::move(n)), value(std::move(v)) {}
  LogValue(std::string n, const char* v) : name(std::move(n)), value(v ? v : "") {}
  LogValue(std::string n, std::string_view v) : name(std::move(n)), value(v) {}
  template <class T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0>
  LogValue(std::string n, T v) : name(std::move(n)), value(ToText(v)) {}

 private:
  template <class T>
  static std::string ToText(T v) {
    if constexpr (std::is_same_v<T, bool>) {
      return v ? "true" : "false";
    } else {
      return std::to_string(v);
    }
  }
};

class LogMessage {
 public:
  LogMessage() = default;
  LogMessage(const LogMessageSite* site, std::string object, std::vector<LogValue> values);

  const LogMessageSite* GetSite() const { return m_site; }
  LogLevel GetLevel() const;
  const char* GetId() const;
  int64_t GetTime() const { return m_time; }
  uint64_t GetThread() const { return m_thread; }
  const std::string& GetObject() const { return m_object; }
  const std::vector<LogValue>& GetValues() const { return m_values; }
  // The value named `name`, or nullptr.
  const std::string* FindValue(std::string_view name) const;
  void AddValue(LogValue v) { m_values.push_back(std::move(v)); }

  // Where in an input document the fault lies (file and 1-based line), when
  // known. Set by the loaders that catch a fault while reading a document.
  void SetDocumentLocation(std::string file, int64_t line);
  bool HasDocumentLocation() const { return m_doc_line > 0 || !m_doc_file.empty(); }
  const std::string& GetDocumentFile() const { return m_doc_file; }
  int64_t GetDocumentLine() const { return m_doc_line; }

  // The text with every known `{name}` replaced by its value.
  std::string GetText() const;
  // "file:line: ID: text" (location and identifier when present).
  std::string Format() const;

 private:
  const LogMessageSite* m_site = nullptr;
  int64_t m_time = 0;
  uint64_t m_thread = 0;
  std::string m_object;
  std::vector<LogValue> m_values;
  std::string m_doc_file;
  int64_t m_doc_line = 0;
};

// Process-wide log sink. Messages at or above the minimum level go to the
// current sink (standard error by default). Thread safe.
class LogManager {
 public:
  using Sink = std::function<void(const LogMessage&)>;
  static LogManager& Instance();

  void Write(const LogMessage& message);
  void Flush();
  // Replaces the sink; returns the previous one. A null sink drops messages.
  Sink SetSink(Sink sink);
  void SetMinLevel(LogLevel level);
  LogLevel GetMinLevel() const;
  // When tracing is on, XML readers and writers log TRACING_IN/TRACING_OUT.
  void SetTracing(bool on) { m_tracing = on; }
  bool IsTracing() const { return m_tracing; }

 private:
  LogManager();
  mutable std::mutex m_mutex;
  Sink m_sink;
  LogLevel m_min_level = LogLevel::Warning;
  bool m_tracing = false;
};

// The engine's exception: carries the logged message.
class ExceptionType : public std::exception {
 public:
  explicit ExceptionType(LogMessage message);
  const char* what() const noexcept override { return m_what.c_str(); }
  const LogMessage& GetMessage() const { return m_message; }
  // Adds the document location unless one is already known, and refreshes
  // the text returned by what().
  void SetDocumentLocation(const std::string& file, int64_t line);

 private:
  LogMessage m_message;
  std::string m_what;
};

// Builds the message, writes and flushes it, and throws it.
[[noreturn]] void RaiseMessage(const LogMessageSite& site, std::string object,
                               std::initializer_list<LogValue> values);
[[noreturn]] void RaiseMessage(const LogMessageSite& site, std::string object,
                               std::vector<LogValue> values);
void LogSiteMessage(const LogMessageSite& site, std::string object,
                    std::initializer_list<LogValue> values);

// Logs a trace entry for `function` when tracing is on (direction is
// "TRACING_IN" or "TRACING_OUT").
void LogTrace(const char* direction, const char* function);

// Logs TRACING_IN on construction and TRACING_OUT on destruction.
class TraceScope {
 public:
  explicit TraceScope(const char* function) : m_function(function) {
    LogTrace("TRACING_IN", m_function);
  }
  ~TraceScope() { LogTrace("TRACING_OUT", m_function); }

 private:
  const char* m_function;
};

}  // namespace vx

// Raise a message definition (a VX_SERVER_* function) with named values.
#define VX_RAISE(definition, object, ...)                                  \
  do {                                                                     \
    static ::vx::LogMessageSite vx_site_;                                  \
    vx_site_.Prepare(&definition, __func__, __FILE__, __LINE__);           \
    ::vx::RaiseMessage(vx_site_, object, {__VA_ARGS__});                   \
  } while (0)

// Raise a literal text with `{name}` placeholders at error level.
#define VX_RAISE_TEXT(text, object, ...)                                   \
  do {                                                                     \
    static ::vx::LogMessageSite vx_site_;                                  \
    vx_site_.Prepare(text, ::vx::LogLevel::Error, __func__, __FILE__, __LINE__); \
    ::vx::RaiseMessage(vx_site_, object, {__VA_ARGS__});                   \
  } while (0)

// Log (without raising) a literal text at the given level.
#define VX_LOG_TEXT(level, text, object, ...)                              \
  do {                                                                     \
    static ::vx::LogMessageSite vx_site_;                                  \
    vx_site_.Prepare(text, level, __func__, __FILE__, __LINE__);           \
    ::vx::LogSiteMessage(vx_site_, object, {__VA_ARGS__});                 \
  } while (0)

// Log (without raising) a message definition.
#define VX_LOG(definition, object, ...)                                    \
  do {                                                                     \
    static ::vx::LogMessageSite vx_site_;                                  \
    vx_site_.Prepare(&definition, __func__, __FILE__, __LINE__);           \
    ::vx::LogSiteMessage(vx_site_, object, {__VA_ARGS__});                 \
  } while (0)

#define VX_TRACE_SCOPE() ::vx::TraceScope vx_trace_scope_(__func__)
