// vx_expressions: the public interface for embedding the expression engine.
//
// An expression context is a small program, written as XML, that reads rows
// of its input descriptors and writes output tuples. A `Stream` loads one
// context and runs it once per row you push: fill the row, push it, read the
// outputs. Rows carry a sign: a positive row enters its group (or window), a
// negative row leaves it, and aggregates follow both. With a group-by key
// each distinct key value gets its own evaluator; with a state folder all
// operator state lives in an embedded store and survives restarts.
//
// Ownership: a `Stream` owns everything it loads and creates. The row
// returned by `Row()` and the outputs returned by `Output()` are owned by the
// stream and stay valid until the next `Push()` or the stream's destruction.
//
// Threads: a `Stream` is used by one thread at a time; different streams may
// be used by different threads at once (they share nothing but the
// process-wide operator registry, which is safe to use concurrently).
//
// Errors: every function that can fail throws `vx_expressions::Error`, whose
// `what()` names the document, the line and the cause where there is one.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vx_expressions {

class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Environment;
class StreamParent;

// A sequence a stream keeps itself (see StreamOptions::sequences).
struct Sequence {
  int64_t start = 1;
  int64_t increment = 1;  // not 0
};

struct StreamOptions {
  // Fields of the first input descriptor that form the group-by key; empty
  // for an ungrouped context.
  std::vector<std::string> group_by;
  // Folder of the persistent store; empty keeps all state in memory. The
  // folder may hold the state of one stream only.
  std::string state_dir;
  // With a state folder: flush every committed row to the disk (survives a
  // machine crash, at the cost of one disk flush per row).
  bool sync = false;
  // Sequences for NextVal that the stream keeps itself: the first draw gives
  // the start, each later one adds the increment. With a state folder every
  // draw is committed with the row that drew it, so a restarted stream goes
  // on after the last committed value. A name declared here hides the same
  // name of the environment.
  std::map<std::string, Sequence, std::less<>> sequences;
  // What the server around the stream offers to the operators that look
  // beyond the row; null offers nothing. Not owned: it must outlive the
  // stream.
  Environment* environment = nullptr;
};

// One field of a row: read or written through its text form (see the value
// text table in the documentation), or through the typed accessors.
class Tuple {
 public:
  const std::string& DescriptorName() const;
  size_t FieldCount() const;
  const std::string& FieldName(size_t i) const;
  // "boolean", "integer", "long", "float", "string", "time", "interval",
  // "blob" or "xml".
  const char* FieldType(size_t i) const;
  // Position of a field by name; throws Error for an unknown name.
  size_t FieldIndex(std::string_view name) const;

  bool IsNull(size_t i) const;
  // The value's text form; nullopt for NULL.
  std::optional<std::string> Text(size_t i) const;
  // Typed reads; throw Error for NULL or for another type. Integer, long,
  // time and interval read as int64 (time and interval in microseconds).
  int64_t Int64(size_t i) const;
  double Double(size_t i) const;
  bool Bool(size_t i) const;

  void SetNull(size_t i);
  // Sets a field from its text form; throws Error when the text is not a
  // value of the field's type.
  void SetText(size_t i, std::string_view text);
  void SetInt64(size_t i, int64_t value);  // integer (range-checked), long, time, interval
  void SetDouble(size_t i, double value);  // float
  void SetBool(size_t i, bool value);      // boolean

  // True for a negative row (a row leaving its group).
  bool IsNegative() const;
  void SetNegative(bool negative);
  // Microseconds since 1970-01-01 00:00:00 UTC.
  int64_t Timestamp() const;
  void SetTimestamp(int64_t micros);

 private:
  friend class Stream;
  friend class Table;
  Tuple() = default;
  void* m_tuple = nullptr;
};

// A table of rows of one descriptor, oldest first, that an Environment
// offers to the column-lookup operators (GetColumnByName..., where row 1 is
// the oldest and -1 the newest). Rows are read while streams push; change a
// table only between pushes of the streams that read it.
class Table {
 public:
  // A table whose rows have the descriptor given as a "TupleDescriptor"
  // element; throws Error when the XML is not one.
  static std::unique_ptr<Table> Create(const std::string& descriptor_xml);
  ~Table();
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  size_t RowCount() const;
  // Appends a row with every field NULL and returns it for filling. The
  // reference stays valid until that row is removed.
  Tuple& AppendRow();
  // Throw Error past the last row.
  Tuple& Row(size_t i);
  const Tuple& Row(size_t i) const;
  void RemoveRow(size_t i);
  void Clear();

 private:
  friend class StreamParent;
  struct Impl;
  explicit Table(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> m_impl;
};

// The user on whose behalf a stream runs.
struct User {
  std::string name;
  std::set<std::string, std::less<>> groups;                 // names compare exactly
  std::map<std::string, std::string, std::less<>> preferences;  // value texts
};

// What the server around a stream offers to the operators that look beyond
// the row: named sequences (NextVal), named tables (GetColumnByName...) and
// the current user (GetCurrentUserName, IsCurrentUserInGroup,
// GetPreference...). Each method's default offers nothing; override what the
// server has. Methods are called on the thread that pushes a row, so an
// environment shared by streams on several threads must be thread safe.
class Environment {
 public:
  virtual ~Environment();
  // Advances sequence `name` and returns its new value; nullopt when there
  // is no such sequence. Persisting the sequence is the environment's own
  // business (StreamOptions::sequences commit with the stream's state).
  virtual std::optional<int64_t> NextValue(std::string_view name);
  // The table called `name`, or null. A table must outlive the streams that
  // read it, and a name must keep naming the same table (its rows may
  // change): streams remember the table a name gave them.
  virtual const Table* FindTable(std::string_view name) const;
  // The user the stream runs as, or null for none; the object must stay
  // valid until the next call.
  virtual const User* CurrentUser() const;
};

class Stream {
 public:
  // Loads and checks a context from a file or from XML text (`name` is used
  // in messages). With a state folder, state saved there by an earlier
  // stream of the same context is restored.
  static std::unique_ptr<Stream> Open(const std::string& context_path,
                                      const StreamOptions& options = {});
  static std::unique_ptr<Stream> OpenString(const std::string& context_xml,
                                            const std::string& name,
                                            const StreamOptions& options = {});
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // The row to fill before the next Push: a row of the first input
  // descriptor with every field NULL, positive, timestamp 0.
  Tuple& Row();
  // Runs the row at evaluation time `now_micros`. Returns false when the
  // context dropped the row (a stop operator ended the run): the outputs are
  // then not meaningful. With a state folder the row's state changes are
  // committed before Push returns.
  bool Push(int64_t now_micros);

  // Output tuples of the last Push, one per output descriptor.
  size_t OutputCount() const;
  const Tuple& Output(size_t i) const;

  // Number of live groups of a grouped context.
  size_t GroupCount() const;

 private:
  struct Impl;
  explicit Stream(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> m_impl;
};

// The library's version, e.g. "0.1.0".
const char* Version();

// Process-wide resource bounds (see docs/limits.md). Set them once, before
// streams are created; each bound that is crossed throws Error naming it.
struct Limits {
  uint32_t max_document_depth = 128;            // element nesting on load
  uint64_t max_document_bytes = 64ull << 20;     // context document size
  uint32_t max_operators_per_context = 100000;   // operators in one context
  uint32_t max_value_bytes = 64u << 20;          // one string, blob or XML value
  uint64_t max_steps_per_evaluation = 0;         // operators per row; 0 = no limit
};
Limits GetLimits();
void SetLimits(const Limits& limits);

}  // namespace vx_expressions
