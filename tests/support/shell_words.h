// SPDX-License-Identifier: MIT
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

// For tests that run programs through the shell.
namespace vela::testing {

// Whether `program` is an executable on PATH.
inline bool onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::istringstream directories(path != nullptr ? path : "");
  for (std::string directory; std::getline(directories, directory, ':');) {
    if (!directory.empty() && access((directory + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

// `word` as one word of a shell command line, whatever it holds.
inline std::string shellQuoted(std::string_view word) {
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace vela::testing
