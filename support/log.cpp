#include "support/log.h"

#include <pratom.h>
#include <prinrval.h>
#include <prthread.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>

namespace vx {

const char* LogLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::Trace: return "TRACE";
    case LogLevel::Debug: return "DEBUG";
    case LogLevel::Info: return "INFO";
    case LogLevel::Warning: return "WARNING";
    case LogLevel::Error: return "ERROR";
    case LogLevel::Fatal: return "FATAL";
  }
  return "?";
}

// ---- LogMessageSite ----

template <class Build>
void LogMessageSite::PrepareOnce(Build&& build) {
  PRInt32 old = PR_AtomicSet(&m_guard, 1);
  if (old == 0) {
    build();
    PR_AtomicSet(&m_guard, 2);
  } else if (old == 1) {
    // Another thread is building the site; wait until it is ready.
    while (PR_AtomicAdd(&m_guard, 0) != 2) PR_Sleep(PR_INTERVAL_NO_WAIT);
  } else {
    PR_AtomicSet(&m_guard, 2);
  }
}

void LogMessageSite::Prepare(LogMessageDefinitionFunc definition, const char* function,
                             const char* file, int line) {
  PrepareOnce([&] {
    LogMessageDefinition d = definition();
    m_id = d.id;
    m_text = d.text;
    m_level = d.level;
    m_function = function;
    m_file = file;
    m_line = line;
  });
}

void LogMessageSite::Prepare(const char* literal_text, LogLevel level, const char* function,
                             const char* file, int line) {
  PrepareOnce([&] {
    m_id = "";
    m_text = literal_text;
    m_level = level;
    m_function = function;
    m_file = file;
    m_line = line;
  });
}

// ---- LogMessage ----

LogMessage::LogMessage(const LogMessageSite* site, std::string object, std::vector<LogValue> values)
    : m_site(site),
      m_time(std::chrono::duration_cast<std::chrono::microseconds>(
                 std::chrono::system_clock::now().time_since_epoch())
                 .count()),
      m_thread(std::hash<std::thread::id>()(std::this_thread::get_id())),
      m_object(std::move(object)),
      m_values(std::move(values)) {}

LogLevel LogMessage::GetLevel() const { return m_site ? m_site->GetLevel() : LogLevel::Error; }
const char* LogMessage::GetId() const { return m_site ? m_site->GetId() : ""; }

const std::string* LogMessage::FindValue(std::string_view name) const {
  for (const LogValue& v : m_values)
    if (v.name == name) return &v.value;
  return nullptr;
}

void LogMessage::SetDocumentLocation(std::string file, int64_t line) {
  m_doc_file = std::move(file);
  m_doc_line = line;
}

std::string LogMessage::GetText() const {
  std::string_view text = m_site ? m_site->GetText() : "";
  std::string out;
  out.reserve(text.size() + 32);
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] == '{') {
      size_t close = text.find('}', i + 1);
      if (close != std::string_view::npos) {
        const std::string* v = FindValue(text.substr(i + 1, close - i - 1));
        if (v) {
          out += *v;
          i = close + 1;
          continue;
        }
      }
    }
    out += text[i++];
  }
  return out;
}

std::string LogMessage::Format() const {
  std::string out;
  if (HasDocumentLocation()) {
    out += m_doc_file.empty() ? "<memory>" : m_doc_file;
    if (m_doc_line > 0) out += ":" + std::to_string(m_doc_line);
    out += ": ";
  }
  const char* id = GetId();
  if (id && *id) {
    out += id;
    out += ": ";
  }
  out += GetText();
  // Named values the text does not show are appended, so that a literal
  // message still names what it is about.
  std::string_view text = m_site ? m_site->GetText() : "";
  std::string extra;
  for (const LogValue& v : m_values) {
    if (v.name == "line" || v.name == "file") continue;
    if (text.find("{" + v.name + "}") != std::string_view::npos) continue;
    if (!extra.empty()) extra += ", ";
    extra += v.name + "=" + v.value;
  }
  if (!extra.empty()) out += " [" + extra + "]";
  return out;
}

// ---- LogManager ----

LogManager::LogManager() {
  m_sink = [](const LogMessage& m) {
    std::fprintf(stderr, "%s %s\n", LogLevelName(m.GetLevel()), m.Format().c_str());
  };
}

LogManager& LogManager::Instance() {
  static LogManager manager;
  return manager;
}

void LogManager::Write(const LogMessage& message) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_sink) return;
  bool trace = m_tracing && message.GetLevel() == LogLevel::Trace;
  if (message.GetLevel() < m_min_level && !trace) return;
  m_sink(message);
}

void LogManager::Flush() { std::fflush(stderr); }

LogManager::Sink LogManager::SetSink(Sink sink) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::swap(sink, m_sink);
  return sink;
}

void LogManager::SetMinLevel(LogLevel level) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_min_level = level;
}

LogLevel LogManager::GetMinLevel() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_min_level;
}

// ---- ExceptionType ----

ExceptionType::ExceptionType(LogMessage message)
    : m_message(std::move(message)), m_what(m_message.Format()) {}

void ExceptionType::SetDocumentLocation(const std::string& file, int64_t line) {
  if (m_message.HasDocumentLocation()) return;
  m_message.SetDocumentLocation(file, line);
  m_what = m_message.Format();
}

// ---- raising ----

[[noreturn]] void RaiseMessage(const LogMessageSite& site, std::string object,
                               std::vector<LogValue> values) {
  LogMessage message(&site, std::move(object), std::move(values));
  LogManager& log = LogManager::Instance();
  log.Write(message);
  log.Flush();
  throw ExceptionType(std::move(message));
}

[[noreturn]] void RaiseMessage(const LogMessageSite& site, std::string object,
                               std::initializer_list<LogValue> values) {
  RaiseMessage(site, std::move(object), std::vector<LogValue>(values));
}

void LogSiteMessage(const LogMessageSite& site, std::string object,
                    std::initializer_list<LogValue> values) {
  LogManager& log = LogManager::Instance();
  if (site.GetLevel() < log.GetMinLevel()) return;
  log.Write(LogMessage(&site, std::move(object), std::vector<LogValue>(values)));
}

void LogTrace(const char* direction, const char* function) {
  LogManager& log = LogManager::Instance();
  if (!log.IsTracing()) return;
  static LogMessageSite in_site;
  static LogMessageSite out_site;
  bool in = direction[8] == 'I';  // "TRACING_IN" vs "TRACING_OUT"
  LogMessageSite& site = in ? in_site : out_site;
  site.Prepare(in ? "TRACING_IN {function}" : "TRACING_OUT {function}", LogLevel::Trace,
               __func__, __FILE__, __LINE__);
  log.Write(LogMessage(&site, "", {LogValue("function", function)}));
}

}  // namespace vx
