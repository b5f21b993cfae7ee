// SPDX-License-Identifier: MIT
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>

namespace vela::testing {

struct VelactlOutput {
  int exitCode = -1;
  std::string text;  // everything velactl printed on stdout
};

// Runs `<prefix> <velactl> --json <arguments>` through the shell and waits
// for it. The prefix may run velactl as another user (setpriv ...), who then
// needs a velactl it can reach (runnableByEveryone).
inline VelactlOutput runVelactl(const std::string& arguments, const std::string& prefix = {},
                                const std::string& velactl = VELACTL_PATH) {
  const std::string command = prefix + " " + velactl + " --json " + arguments;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  VelactlOutput output;
  std::array<char, 4096> buffer{};
  while (pipe && std::fgets(buffer.data(), buffer.size(), pipe.get()) != nullptr) output.text += buffer.data();
  const int status = pclose(pipe.release());
  output.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return output;
}

}  // namespace vela::testing
