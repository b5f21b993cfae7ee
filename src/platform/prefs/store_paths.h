// SPDX-License-Identifier: MIT
#pragma once

#include <string>

// Where the preference databases lie. Each is looked up again on every call,
// so that a change of environment moves to the new file.
namespace vela::prefs {

// Names the current user's database; when unset the file is
// $XDG_CONFIG_HOME/vela/preferences.sqlite3, with ~/.config as the default.
inline constexpr const char* kPathVariable = "VELA_PREFERENCES_PATH";

// Names the service's system-wide database; when unset it is kServicePath.
inline constexpr const char* kServicePathVariable = "VELA_SERVICE_PREFERENCES_PATH";
// The service's database, in the daemon's state directory.
inline constexpr const char* kServicePath = "/var/lib/vela/preferences.sqlite3";

// Sets `out` to the current user's database file. False when there is no
// place for one (no home directory), `out` then being unspecified.
[[nodiscard]] bool findUserDatabase(std::string& out);

// Sets `out` to the service's database file; there always is one.
[[nodiscard]] bool findServiceDatabase(std::string& out);

}  // namespace vela::prefs
