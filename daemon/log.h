// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <string_view>

// velad logs to stderr; whoever starts it (a service manager, a test) keeps
// the output. Logs name members and callers but never request contents, which
// carry personal data.
namespace vela::daemon {

void setVerboseLogging(bool on);

// `text` as it may go into a log line: control characters and line breaks
// escaped (\n, \x1b), so that what a client sent cannot split a line or
// forge one, and cut to a bounded length.
std::string printable(std::string_view text);

// Written always: start-up, failures, debug dumps.
void logLine(std::string_view text);
// Written with --verbose only: one line per request and state change.
void logVerbose(std::string_view text);

}  // namespace vela::daemon
