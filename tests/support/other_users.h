// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

// Running this build's programs as users other than the test's own (root):
// callers without privileges, and velad as an unprivileged service user.
namespace vela::testing {

// The prefix that runs a command as nobody (uid and gid 65534), keeping the
// environment and so the private bus.
inline constexpr const char* kAsNobody = "setpriv --reuid=65534 --regid=65534 --clear-groups";

// A system user that stands in for velad's own user in tests: the machine has
// no user vela unless the package is installed. Debian's `daemon` (uid 1)
// owns nothing a test could harm.
struct ServiceUser {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;

  // `daemon`, or nullopt when the machine has no such user.
  static std::optional<ServiceUser> standIn();

  // The argv prefix that runs a program as this user.
  std::vector<std::string> launcher() const;
};

// A program of this build copied where every user can run it.
struct RunnableCopy {
  std::string path;     // the copy
  std::string command;  // the shell command that runs it with the copied library
};

// Copies `program` into `directory` (created if missing) together with the
// library and the store module it may load, all readable and runnable by
// every user. The build tree may lie where other users cannot reach it, such
// as root's home.
RunnableCopy runnableByEveryone(const std::string& program, const std::string& directory);

}  // namespace vela::testing
