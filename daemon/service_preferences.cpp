// SPDX-License-Identifier: MIT
#include "service_preferences.h"

#include <algorithm>
#include <cstdlib>
#include <exception>

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

ServicePreferences::ServicePreferences(std::string path)
    : path_(std::move(path)), store_(prefs::SqliteStore::serviceWriter(path_)) {}

ServicePreferences::~ServicePreferences() = default;

bool ServicePreferences::publishLostMode(const VelaLostModeInfo* info) {
  const bool written = write(kVelaNotification_Public_NotBackedUp_Pref_Domain, kEntryKey,
                             info != nullptr ? std::optional<VelaValue>(entryFor(*info)) : std::nullopt, "lost mode");
  if (written) log(LogLevel::kInfo, info != nullptr ? "lost mode on" : "lost mode off");
  return written;
}

bool ServicePreferences::publishWardenEnabled(bool enabled) {
  const bool written = write(kWardenEnabledPrefDomain, kWardenEnabledPrefKey, VelaValue(enabled), "Warden");
  if (written) log(LogLevel::kInfo, enabled ? "Warden on" : "Warden off");
  return written;
}

bool ServicePreferences::write(std::string_view domain, std::string_view key, const std::optional<VelaValue>& value,
                               std::string_view what) {
  try {
    if (store_->setValue(domain, key, value)) return true;
    log(LogLevel::kWarning, "cannot write " + std::string(what) + " to the service's preferences: " +
                                store_->lastFailure() + "; clients keep seeing the previous state");
  } catch (const std::exception& error) {
    log(LogLevel::kWarning, std::string(what) + ": " + error.what());
  }
  return false;
}

}  // namespace vela::daemon
