// SPDX-License-Identifier: MIT
#pragma once

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

namespace vela::testing {

struct VelactlOutput {
  int exitCode = -1;
  std::string text;    // everything velactl printed on stdout
  std::string errors;  // and on stderr
};

// Runs `<prefix> <velactl> --json <arguments>` through the shell and waits
// for it. The prefix may run velactl as another user (setpriv ...), who then
// needs a velactl it can reach (runnableByEveryone). With `input`, that is
// velactl's standard input; otherwise it reads an empty one.
inline VelactlOutput runVelactl(const std::string& arguments, const std::string& prefix = {},
                                const std::optional<std::string>& input = std::nullopt,
                                const std::string& velactl = VELACTL_PATH) {
  // Both are opened by the shell, before the prefix changes user.
  std::array<char, 32> inputPath{"/tmp/velactl-in.XXXXXX"};
  std::array<char, 32> errorPath{"/tmp/velactl-err.XXXXXX"};
  const int inputFd = mkstemp(inputPath.data());
  const int errorFd = mkstemp(errorPath.data());
  if (inputFd >= 0) {
    const std::string text = input.value_or("");
    const ssize_t written = write(inputFd, text.data(), text.size());
    static_cast<void>(written);
    close(inputFd);
  }
  if (errorFd >= 0) close(errorFd);

  const std::string command =
      prefix + " " + velactl + " --json " + arguments + " <" + inputPath.data() + " 2>" + errorPath.data();
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  VelactlOutput output;
  std::array<char, 4096> buffer{};
  while (pipe && std::fgets(buffer.data(), buffer.size(), pipe.get()) != nullptr) output.text += buffer.data();
  const int status = pclose(pipe.release());
  output.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;

  std::ostringstream errors;
  errors << std::ifstream(errorPath.data()).rdbuf();
  output.errors = errors.str();
  unlink(inputPath.data());
  unlink(errorPath.data());
  return output;
}

}  // namespace vela::testing
