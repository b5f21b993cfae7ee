// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaLostModeInfo.h>
#include <vela/VelaValue.h>

namespace vela::prefs {
class SqliteStore;
}

namespace vela::daemon {

// The service's system-wide preferences, which velad alone writes and every
// user reads through the library: lost mode for the lock screen, and whether
// Warden is on. Each write is committed and synced before it returns; one
// that fails is logged, and velad carries on.
// Thread: any. Blocks: a write waits up to 5 s for readers to let go of the file.
class ServicePreferences {
 public:
  // `path` is the database file, <state directory>/preferences.sqlite3. It
  // and its directory are created, readable by all, on the first write.
  explicit ServicePreferences(std::string path);
  ~ServicePreferences();
  ServicePreferences(const ServicePreferences&) = delete;
  ServicePreferences& operator=(const ServicePreferences&) = delete;
  ServicePreferences(ServicePreferences&&) = delete;
  ServicePreferences& operator=(ServicePreferences&&) = delete;

  // Clients read lost mode from here, not from velad, so every switch is
  // written: `info` is the record lost mode was switched on with, nullptr when
  // it was switched off. Writes the "LocusLostModeInfo" entry of the public
  // not-backed-up domain ({"lostModeEnabled": true, "lostModeMessage": ...,
  // "lostModeOwnerNumber": ...}, nil fields left out) or removes it. True once
  // written.
  [[nodiscard]] bool publishLostMode(const VelaLostModeInfo* info);

  // Writes kWardenEnabledPrefKey in kWardenEnabledPrefDomain as a boolean.
  // True once written.
  [[nodiscard]] bool publishWardenEnabled(bool enabled);

  const std::string& path() const noexcept { return path_; }

  // The file in velad's state directory: with the system bus's default
  // directory, where the library reads by default.
  static std::string pathIn(const std::string& stateDirectory) { return stateDirectory + "/preferences.sqlite3"; }

 private:
  // Stores `value` under (domain, key), or removes the key for nullopt; logs
  // `what` and the reason when it cannot.
  bool write(std::string_view domain, std::string_view key, const std::optional<VelaValue>& value,
             std::string_view what);

  std::string path_;
  std::unique_ptr<prefs::SqliteStore> store_;
};

}  // namespace vela::daemon
