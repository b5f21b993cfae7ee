// SPDX-License-Identifier: MIT
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "protocol/names.h"
#include "shell_words.h"

// velad reached through busctl, a D-Bus client independent of ours: what it
// prints is what travelled on the wire, not what our decoder makes of it.
namespace vela::testing {

// Requests are written as busctl takes them on a shell's command line: the
// words after the signature a{sv}, an entry being "key <signature> <value>".
inline constexpr const char* kNoKeys = "0";

// Calls `member` of HandsetActions through busctl, run after `prefix` (which
// may make it another user), and returns the a{sv} it answered, as busctl
// printed it: each entry as "key": {"type": "<signature>", "data": <value>}.
// nullopt, with a failure recorded, when the call failed or the answer is not
// one a{sv}.
inline std::optional<nlohmann::json> busctlCall(const std::string& address, std::string_view member,
                                                std::string_view request, const std::string& prefix = {}) {
  const std::string command = prefix + " busctl --json=short call --address=" + shellQuoted(address) + " -- " +
                              shellQuoted(protocol::kServiceName) + " " + shellQuoted(protocol::kObjectPath) + " " +
                              shellQuoted(protocol::kHandsetActionsInterface) + " " + shellQuoted(member) +
                              " 'a{sv}' " + std::string(request);
  // busctl's complaints go to the test's stderr, next to its failures.
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (!pipe) {
    ADD_FAILURE() << "cannot run " << command;
    return std::nullopt;
  }
  std::string output;
  std::array<char, 4096> buffer{};
  while (std::fgets(buffer.data(), buffer.size(), pipe.get()) != nullptr) output += buffer.data();
  const int status = pclose(pipe.release());
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    ADD_FAILURE() << member << ": busctl ended with status " << status << " for " << command;
    return std::nullopt;
  }
  // The whole answer: {"type": "<signature of the reply>", "data": [<each argument>]}.
  const nlohmann::json answer = nlohmann::json::parse(output, nullptr, false);
  if (answer.is_discarded() || answer.value("type", "") != "a{sv}" || !answer.contains("data") ||
      answer["data"].size() != 1 || !answer["data"][0].is_object()) {
    ADD_FAILURE() << member << " answered, in busctl's words: " << output;
    return std::nullopt;
  }
  return answer["data"][0];
}

}  // namespace vela::testing
