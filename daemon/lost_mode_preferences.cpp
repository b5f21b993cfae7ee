// SPDX-License-Identifier: MIT
#include "lost_mode_preferences.h"

#include <exception>
#include <optional>
#include <string>

#include <vela/VelaConstants.h>

#include "log.h"
#include "platform/prefs/sqlite_store.h"
#include "protocol/lost_mode_entries.h"

namespace vela::daemon {
namespace {

namespace entries = protocol::lost_mode;

// velad owns the first of the entries clients consult; the others belong to
// other writers and are left alone.
constexpr std::string_view kEntryKey = entries::kLocusEntry;

VelaDictionary entryFor(const VelaLostModeInfo& info) {
  VelaDictionary entry{{std::string(entries::kEnabledKey), true}};
  if (info.message()) entry.emplace(entries::kMessageKey, *info.message());
  if (info.phoneNumber()) entry.emplace(entries::kOwnerNumberKey, *info.phoneNumber());
  return entry;
}

}  // namespace

void publishLostModeToPreferences(const VelaLostModeInfo* info) {
  const std::string_view domain = kVelaNotification_Public_NotBackedUp_Pref_Domain;
  bool written = false;
  try {
    // The store itself, rather than VelaPreferencesUtil, because velad wants
    // to know when the write did not happen.
    prefs::SqliteStore& store = prefs::SqliteStore::shared();
    written =
        store.setValue(domain, kEntryKey, info != nullptr ? std::optional<VelaValue>(entryFor(*info)) : std::nullopt);
    store.synchronize(domain);
  } catch (const std::exception& error) {
    logLine(std::string("lost mode: ") + error.what());
  }
  if (!written) {
    logLine("cannot write lost mode to the preference store " + prefs::SqliteStore::databasePath() +
            "; clients keep seeing the previous state");
    return;
  }
  logVerbose(info != nullptr ? "lost mode on" : "lost mode off");
}

}  // namespace vela::daemon
