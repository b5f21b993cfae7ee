// SPDX-License-Identifier: MIT
#include "platform/prefs/store_paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace vela::prefs {
namespace {

// secure_getenv: a set-user-ID host must not let its caller's environment pick
// which file it creates, writes or reads.
const char* variable(const char* name) {
  const char* value = secure_getenv(name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

std::string homeDirectory() {
  if (const char* home = variable("HOME"); home && home[0] == '/') return home;
  // Services started without a HOME still have a passwd entry.
  const auto size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !found->pw_dir) return {};
  return found->pw_dir;
}

}  // namespace

bool findUserDatabase(std::string& out) {
  if (const char* path = variable(kPathVariable)) {
    out.assign(path);
    return true;
  }
  // The XDG rules ignore a relative XDG_CONFIG_HOME.
  if (const char* config = variable("XDG_CONFIG_HOME"); config && config[0] == '/') {
    out.assign(config);
  } else {
    out = homeDirectory();
    if (out.empty()) return false;
    out.append("/.config");
  }
  out.append("/vela/preferences.sqlite3");
  return true;
}

bool findServiceDatabase(std::string& out) {
  const char* path = variable(kServicePathVariable);
  out.assign(path != nullptr ? path : kServicePath);
  return true;
}

}  // namespace vela::prefs
