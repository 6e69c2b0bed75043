// `cpxrun run`: streams rows through an expression context.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace cpxrun {

struct RunOptions {
  std::string context_path;           // CONTEXT.xml
  std::string input = "-";            // file path or "-" for stdin
  std::string output;                 // empty = stdout
  std::string format = "jsonl";       // "jsonl" or "csv"
  std::vector<std::string> group_by;  // field names of the first input descriptor
  std::string state_dir;              // empty = no persistent state
  bool sync = false;                  // with state: flush every commit to the disk
  bool progress = false;              // report rows and rows per second on `err`
};

// Loads the context at `options.context_path`, reads rows of its first input
// descriptor from the input and writes the output tuples of every row, one
// line per output tuple, in the input's format. Returns the process exit
// status: 0 when every row ran, 1 on the first error. Every error is one line
// on `err`: "<file>:<line>: <cause>", where the file is the input path (or
// "stdin") and the line is where the offending row starts; load errors carry
// the context document's own file and line.
//
// Rows
//   - Each row becomes a tuple of the first input descriptor; fields the row
//     does not give are NULL (defaults are not applied). Any further input
//     descriptor receives its default tuple on every row.
//   - `_sign` ("+" or "-") sets the tuple type; `_ts` (a time text) sets the
//     tuple's timestamp and is the evaluation time of the row. Without `_ts`
//     the timestamp is 0 and the evaluation time is the current time in
//     microseconds since the epoch.
//   - With `group_by`, the context is grouped on those fields of the first
//     input descriptor and every group runs in its own evaluator.
//   - A row whose run ends through a stop operator (IfTrueStop, IfFalseStop:
//     the next-operator index is the operator count plus one) produces no
//     output: that is how a filter drops a row. A jump past the end ends the
//     run normally. Otherwise every output tuple is written, in output
//     descriptor order.
//   - Blank input lines are skipped.
//
// State (`state_dir`)
//   - Operator state, group counts, the input position and (with an output
//     file) the output file's length live in the persistent store in
//     `state_dir`, committed together in one atomic batch after each row,
//     once that row's output has been handed to the operating system.
//   - A run started again with the same context, format and group-by fields
//     restores the state and continues: when the input is the one recorded
//     (same path, or "-" for both), rows up to the last committed one are
//     skipped; with another input the run starts at its first row and the
//     state carries on (one stream split across several inputs). An output
//     file recorded in the store is first cut back to its committed length
//     and then appended to, so its content continues exactly; on stdout the
//     outputs of the one row in flight at a kill may appear twice.
//   - A committed row survives a crash of the process (even SIGKILL): the
//     store's log is in the operating system's hands when the commit returns.
//     `sync` also flushes the log and the output file to the disk before each
//     commit returns, so a committed row survives a crash of the machine, at
//     the cost of one disk flush a row.
//   - A state folder made by another command (context, format or group-by
//     fields) is refused.
//
// JSON Lines
//   - One object per line; keys are field names, `_sign` and `_ts`; unknown
//     keys are an error. `null` is NULL (and, for `_sign`/`_ts`, "not given").
//   - A value is a JSON boolean for a boolean field, a JSON number for an
//     integer, long or float field (integers must be whole and in range), or
//     for any field a JSON string holding the value's text form.
//   - Output objects hold the fields in descriptor order, preceded by
//     `"_tuple"` (the descriptor name) when the context has more than one
//     output descriptor, and followed by `"_sign":"-"` only for a negative
//     tuple and `"_ts"` only when the tuple's timestamp is not 0. NULL is
//     `null`; booleans are true/false; integers, longs and finite floats are
//     numbers (a float is printed so that it reads back to the same double);
//     NaN, infinities and all other types are strings holding the text form.
//     A string that is not valid UTF-8 cannot be written as JSON and is an
//     error.
//
// CSV
//   - The first record is a header naming fields of the first input
//     descriptor and optionally `_sign` and `_ts`; every later record must
//     have as many cells. RFC 4180 quoting: a quoted cell may hold commas,
//     doubled quotes and line breaks. An empty unquoted cell is NULL (or "not
//     given" for `_sign`/`_ts`); a quoted empty cell `""` is an empty string.
//     Cells hold text forms. A blank line is skipped, so in a one-column file
//     a NULL row cannot be written as an empty line.
//   - Output: the output descriptor's field names as a header (written once,
//     before the first row), then one record per output tuple; NULL is an
//     empty cell, an empty string is `""`, and a cell holding a comma, quote,
//     or line break is quoted. Records end with "\n". Sign and timestamp are
//     not written. CSV output requires exactly one output descriptor.
//
// Output goes to `options.output` (created or truncated) or to stdout. The
// output is flushed whenever the input has no buffered data left, so a
// pipeline sees each row's result before the next row arrives.
//
// While the command runs, engine log messages are routed to `err`; a message
// that is raised as an error is reported once, with its row's location.
int RunCommand(const RunOptions& options, std::ostream& err);

}  // namespace cpxrun
