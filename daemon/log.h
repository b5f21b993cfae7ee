// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

// velad logs to stderr; whoever starts it (a service manager, a test) keeps
// the output. Logs name members and callers but never request contents, which
// carry personal data.
namespace vela::daemon {

void setVerboseLogging(bool on);

// Written always: start-up, failures, debug dumps.
void logLine(std::string_view text);
// Written with --verbose only: one line per request and state change.
void logVerbose(std::string_view text);

}  // namespace vela::daemon
