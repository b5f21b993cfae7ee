// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>

#include <CLI/CLI.hpp>

// Secrets never come from the command line, which every user of the machine
// can read (ps, /proc/PID/cmdline) and which shells keep in their history:
// they come from a file, or from standard input.
namespace velactl {

inline constexpr std::size_t kMaxSecretInput = std::size_t{64} * 1024;

// Reads `source`, a file name or "-" for standard input, into `text`, at most
// kMaxSecretInput bytes. Empty on success, else why not.
std::string readSecretInput(const std::string& source, std::string& text);

// A hidden option `name` of `command` that only tells whoever still passes a
// secret on the command line to use `instead`: a usage error.
void refuseSecretOption(CLI::App& command, const std::string& name, const std::string& instead);

}  // namespace velactl
