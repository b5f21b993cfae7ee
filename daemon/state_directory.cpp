// SPDX-License-Identifier: MIT
#include "state_directory.h"

#include <cstdlib>
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

}  // namespace vela::daemon
