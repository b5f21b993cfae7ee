// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaExport.h>
#include <vela/VelaValue.h>

// Typed, one-line access to per-domain preferences.
//
// STORE
// Two SQLite databases, each holding one property-list value per (domain,
// key):
//
// - The service's domains belong to the system as a whole: the values of
//   kVelaNotification_Pref_Domain, kVelaNotification_NotBackedUp_Pref_Domain,
//   kVelaNotification_Public_NotBackedUp_Pref_Domain,
//   kVelaNotification_PostWipe_Pref_Domain and kWardenEnabledPrefDomain
//   (VelaConstants.h; the names are read on every call, so a host that
//   reassigns one moves that domain). They live in one system-wide database,
//   /var/lib/vela/preferences.sqlite3 ($VELA_SERVICE_PREFERENCES_PATH if set),
//   which only the daemon writes and every user may read. Through this class
//   they are read-only: a write or removal in one of them is dropped, changes
//   nothing, creates no file and reports nothing.
// - Every other domain lives in the current user's own database:
//   $VELA_PREFERENCES_PATH if set, else $XDG_CONFIG_HOME/vela/preferences.sqlite3
//   (~/.config when XDG_CONFIG_HOME is unset), created on the first write and
//   private to the user. Several processes may write one domain at once
//   without losing a write.
//
// Every write is committed and synced before the call returns, so it is
// visible to every process and survives a crash of the writer or a power
// loss. The database locations are looked up on every call.
//
// FAILURE
// Nothing reports failure and nothing throws. A missing, unreadable or corrupt
// store, an absent key or a value that cannot be read all read as "no value"
// (nullopt, false or 0); a write that cannot be committed leaves the store as
// it was.
//
// THREADING AND BLOCKING
// Every call may be made from any thread. Reads of the user's domains never
// wait for another process's write; a read of a service domain may wait while
// the daemon commits a write, for at most 5 s. A write waits for another
// process's write to finish, for at most 5 s, and fails silently after that.
class VELA_EXPORT VelaPreferencesUtil {
 public:
  VelaPreferencesUtil() = delete;  // all members are static

  // Makes every write committed by any process visible to the next read of
  // `domain`. Each read already sees them in both databases, so this is cheap;
  // call it anyway before reading what another process has just written.
  // Thread: any. Blocks: no.
  static void synchronizeDomain(std::string_view domain);

  // Removes `key` from `domain`; nothing happens if it is absent.
  // Thread: any. Blocks: on another process's write, up to 5 s.
  static void removeKey(std::string_view key, std::string_view domain);

  // The key's value read as a boolean: a boolean is itself, a number is true
  // when non-zero, and the strings "true"/"yes"/"1" and "false"/"no"/"0" (any
  // case) read as such. false for anything else and for an absent key.
  // Thread: any. Blocks: in a service domain only, on the daemon's commit, up to 5 s.
  static bool boolForKey(std::string_view key, std::string_view domain);

  // Stores a boolean (never a number) under `key`.
  // Thread: any. Blocks: on another process's write, up to 5 s.
  static void setBool(bool value, std::string_view key, std::string_view domain);

  // The key's value read as an integer: an integer is itself, a real is
  // truncated (and clamped to the 64-bit range), a boolean is 1 or 0, a string
  // that is wholly a decimal integer, optionally signed, is that integer. 0 for
  // anything else, for an absent key, for a NaN, and for a value beyond the
  // range of std::intptr_t.
  // Thread: any. Blocks: in a service domain only, on the daemon's commit, up to 5 s.
  static std::intptr_t integerForKey(std::string_view key, std::string_view domain);

  // Stores an integer under `key`.
  // Thread: any. Blocks: on another process's write, up to 5 s.
  static void setInteger(std::intptr_t value, std::string_view key, std::string_view domain);

  // Typed readers: the key's value when it is of exactly that type, else
  // nullopt (absent, unreadable, or of another type: a number never reads as a
  // string, nor an array as a dictionary, nor a set as an array).
  // Thread: any. Blocks: in a service domain only, on the daemon's commit, up to 5 s.
  static std::optional<std::string> stringForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaDate> dateForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaDictionary> dictionaryForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaArray> arrayForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaData> dataForKey(std::string_view key, std::string_view domain);

  // The key's value whatever its type; nullopt when absent or unreadable.
  // Thread: any. Blocks: in a service domain only, on the daemon's commit, up to 5 s.
  static std::optional<VelaValue> objectForKey(std::string_view key, std::string_view domain);

  // Every key of `domain` with its value, for tools that show or copy a whole
  // domain; keys whose value cannot be read are left out. Empty for an absent
  // domain.
  // Thread: any. Blocks: in a service domain only, on the daemon's commit, up to 5 s.
  static VelaDictionary dictionaryForDomain(std::string_view domain);

  // Object setters: store the value as given under `key`; nullopt removes the
  // key, exactly as removeKey() does. A value nested more than 64 containers
  // deep is not stored.
  // Thread: any. Blocks: on another process's write, up to 5 s.
  static void setString(std::optional<std::string_view> value, std::string_view key, std::string_view domain);
  static void setDate(std::optional<VelaDate> value, std::string_view key, std::string_view domain);
  static void setDictionary(const std::optional<VelaDictionary>& value, std::string_view key, std::string_view domain);
  static void setArray(const std::optional<VelaArray>& value, std::string_view key, std::string_view domain);
  static void setData(const std::optional<VelaData>& value, std::string_view key, std::string_view domain);
  static void setObject(const std::optional<VelaValue>& value, std::string_view key, std::string_view domain);
};
