// SPDX-License-Identifier: MIT
#include "log.h"

#include <cstdio>

namespace vela::daemon {
namespace {

// Set once by main() before the loop starts; velad has one thread.
bool verbose = false;

}  // namespace

void setVerboseLogging(bool on) { verbose = on; }

void logLine(std::string_view text) {
  std::fprintf(stderr, "velad: %.*s\n", static_cast<int>(text.size()), text.data());
}

void logVerbose(std::string_view text) {
  if (verbose) logLine(text);
}

}  // namespace vela::daemon
