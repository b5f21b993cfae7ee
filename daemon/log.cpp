// SPDX-License-Identifier: MIT
#include "log.h"

#include <cstdio>

namespace vela::daemon {
namespace {

// Set once by main() before the loop starts; velad has one thread.
bool& verbose() {
  static bool on = false;
  return on;
}

}  // namespace

void setVerboseLogging(bool on) { verbose() = on; }

void logLine(std::string_view text) {
  // Nowhere to report a failed write to the log.
  static_cast<void>(std::fprintf(stderr, "velad: %.*s\n", static_cast<int>(text.size()), text.data()));
}

void logVerbose(std::string_view text) {
  if (verbose()) logLine(text);
}

}  // namespace vela::daemon
