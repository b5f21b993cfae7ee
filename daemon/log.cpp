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

// Enough to recognise a value by; a client cannot flood the log with one.
constexpr std::size_t kMaxPrintableLength = 200;

}  // namespace

std::string printable(std::string_view text) {
  static constexpr std::string_view kHex = "0123456789abcdef";
  std::string out;
  for (const char c : text.substr(0, kMaxPrintableLength)) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (byte < 0x20 || byte == 0x7f) {
      out += "\\x";
      out += kHex[byte >> 4U];
      out += kHex[byte & 0xfU];
    } else {
      out += c;
    }
  }
  if (text.size() > kMaxPrintableLength) out += "... (" + std::to_string(text.size()) + " bytes)";
  return out;
}

void setVerboseLogging(bool on) { verbose() = on; }

void logLine(std::string_view text) {
  // Nowhere to report a failed write to the log.
  static_cast<void>(std::fprintf(stderr, "velad: %.*s\n", static_cast<int>(text.size()), text.data()));
}

void logVerbose(std::string_view text) {
  if (verbose()) logLine(text);
}

}  // namespace vela::daemon
