// SPDX-License-Identifier: MIT
#include "state_directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace vela::daemon {
namespace {

// Only absolute paths count: a relative one would depend on where velad was
// started.
std::string_view absolute(const char* variable) {
  const char* value = std::getenv(variable);
  if (value == nullptr || value[0] != '/') return {};
  return value;
}

}  // namespace

std::string defaultStateDirectory(bus::BusKind kind) {
  if (const std::string_view given = absolute("STATE_DIRECTORY"); !given.empty()) {
    return std::string(given.substr(0, given.find(':')));
  }
  if (kind == bus::BusKind::kSystem) return "/var/lib/vela";
  if (const std::string_view state = absolute("XDG_STATE_HOME"); !state.empty()) return std::string(state) + "/vela";
  if (const std::string_view home = absolute("HOME"); !home.empty()) return std::string(home) + "/.local/state/vela";
  return {};
}

std::string openStateDirectoryToEveryUser(const std::string& directory) {
  constexpr mode_t kReadableByAll = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;
  struct stat info {};
  if (::stat(directory.c_str(), &info) != 0) {
    return "cannot examine the state directory " + directory + ": " + std::strerror(errno);
  }
  if ((info.st_mode & kReadableByAll) == kReadableByAll) return {};
  if (::chmod(directory.c_str(), (info.st_mode & 07777) | kReadableByAll) != 0) {
    return "cannot let every user read the state directory " + directory + ": " + std::strerror(errno);
  }
  return {};
}

}  // namespace vela::daemon
