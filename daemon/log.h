// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// velad logs to stderr; whoever starts it (a service manager, a test) keeps
// the output. Every line starts with its syslog priority as "<N>", which
// journald and syslog read as the line's level, so a service manager sorts
// velad's failures from its chatter without parsing the text.
//
// The levels velad uses, and when each is written:
//   kError    <3>  always: velad cannot go on, or a change was not made
//   kWarning  <4>  always: something failed and velad carries on
//   kNotice   <5>  always: start, stop, debug dumps a client asked for
//   kInfo     <6>  with --verbose only: one line per state change
//   kDebug    <7>  with --verbose only: one line per request, refusals and
//                  their reasons
//
// What a line may say: members, callers (unique bus names, uids, pids),
// counts and velad's own reasons. Never what a request or the state holds
// for the user (tokens, the lost-mode message and number, e-mail addresses,
// account names, regions, topics), at any level. Text a client chose goes
// through printable() first.
namespace vela::daemon {

enum class LogLevel {
  kError = 3,
  kWarning = 4,
  kNotice = 5,
  kInfo = 6,
  kDebug = 7,
};

// With it, kInfo and kDebug lines are written too.
void setVerboseLogging(bool on);

// Whether lines of `level` are written now: lets a caller skip building a
// line nobody will read.
bool logs(LogLevel level);

// `text` as it may go into a log line: control characters, line breaks and
// malformed UTF-8 escaped (\n, \x1b), so that what a client sent cannot split
// a line, forge one or steer a terminal, and cut to a bounded length.
std::string printable(std::string_view text);

// Writes `text` as one line at `level`. Whatever the caller forgot to pass
// through printable() is escaped here all the same, and a line longer than
// kMaxLogLineBytes is cut: one call writes one bounded line.
void log(LogLevel level, std::string_view text);

// Writes each line of velad's own multi-line `text` (a debug dump, another
// library's message) as a line of its own at `level`, at most kMaxLogLines.
void logLines(LogLevel level, std::string_view text);

// The most one line takes on stderr, priority prefix and line break included.
inline constexpr std::size_t kMaxLogLineBytes = 1024;
inline constexpr std::size_t kMaxLogLines = 32;

}  // namespace vela::daemon
