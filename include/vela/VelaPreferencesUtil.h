// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaExport.h>
#include <vela/VelaValue.h>

// Typed, one-line access to the current user's per-domain preference store.
//
// STORE
// One SQLite database per user: $VELA_PREFERENCES_PATH if set, else
// $XDG_CONFIG_HOME/vela/preferences.sqlite3 (~/.config when XDG_CONFIG_HOME is
// unset). Each (domain, key) holds one property-list value. Every write is
// committed and synced before the call returns, so it is visible to every
// process and survives a crash of the writer or a power loss. Several
// processes may write one domain at once without losing a write.
//
// FAILURE
// Nothing reports failure and nothing throws. A missing, unreadable or corrupt
// store, an absent key or a value that cannot be read all read as "no value"
// (nullopt, false or 0); a write that cannot be committed leaves the store as
// it was.
//
// THREADING AND BLOCKING
// Every call may be made from any thread. Reads never wait for another
// process's write. A write waits for another process's write to finish, for at
// most 5 s, and fails silently after that.
class VELA_EXPORT VelaPreferencesUtil {
 public:
  VelaPreferencesUtil() = delete;  // all members are static

  // Makes every write committed by any process visible to the next read of
  // `domain`. Each read already sees them in this store, so this is cheap; call
  // it anyway before reading what another process has just written.
  // Thread: any. Blocks: no.
  static void synchronizeDomain(std::string_view domain);

  // Removes `key` from `domain`; nothing happens if it is absent.
  // Thread: any. Blocks: on another process's write, up to 5 s.
  static void removeKey(std::string_view key, std::string_view domain);

  // The key's value read as a boolean: a boolean is itself, a number is true
  // when non-zero, and the strings "true"/"yes"/"1" and "false"/"no"/"0" (any
  // case) read as such. false for anything else and for an absent key.
  // Thread: any. Blocks: no.
  static bool boolForKey(std::string_view key, std::string_view domain);

  // Stores a boolean (never a number) under `key`.
  // Thread: any. Blocks: on another process's write, up to 5 s.
  static void setBool(bool value, std::string_view key, std::string_view domain);

  // The key's value read as an integer: an integer is itself, a real is
  // truncated (and clamped to the 64-bit range), a boolean is 1 or 0, a string
  // that is wholly a decimal integer, optionally signed, is that integer. 0 for
  // anything else, for an absent key, for a NaN, and for a value beyond the
  // range of std::intptr_t.
  // Thread: any. Blocks: no.
  static std::intptr_t integerForKey(std::string_view key, std::string_view domain);

  // Stores an integer under `key`.
  // Thread: any. Blocks: on another process's write, up to 5 s.
  static void setInteger(std::intptr_t value, std::string_view key, std::string_view domain);

  // Typed readers: the key's value when it is of exactly that type, else
  // nullopt (absent, unreadable, or of another type: a number never reads as a
  // string, nor an array as a dictionary, nor a set as an array).
  // Thread: any. Blocks: no.
  static std::optional<std::string> stringForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaDate> dateForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaDictionary> dictionaryForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaArray> arrayForKey(std::string_view key, std::string_view domain);
  static std::optional<VelaData> dataForKey(std::string_view key, std::string_view domain);

  // The key's value whatever its type; nullopt when absent or unreadable.
  // Thread: any. Blocks: no.
  static std::optional<VelaValue> objectForKey(std::string_view key, std::string_view domain);

  // Every key of `domain` with its value, for tools that show or copy a whole
  // domain; keys whose value cannot be read are left out. Empty for an absent
  // domain. Thread: any. Blocks: no.
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
