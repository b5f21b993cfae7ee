// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

// What every SQLite file of the project needs around SQLite itself: the
// file created with a mode of our choosing and made durable, text bound
// safely, the format version read without touching the file.
namespace vela::prefs {

// Makes a newly created entry of `directory` survive a power loss.
void syncDirectory(const std::string& directory);

// Creates the database file if it is missing, with `fileMode` whatever the
// umask (SQLite gives its journal, -wal and -shm files the same mode), and the
// missing directories above it with `directoryMode`. Failures are left for
// opening the file to report.
void createDatabaseFile(const std::string& path, mode_t directoryMode, mode_t fileMode);

// SQLite binds a null pointer as SQL NULL, which an empty string_view may
// carry; this binds the empty string instead. Returns SQLite's result code.
[[nodiscard]] int bindText(sqlite3_stmt* statement, int index, std::string_view text);

// The database's format version (PRAGMA user_version), or nullopt when it
// cannot be read (not a database, corrupt, I/O error). Only reads the
// header: the file is untouched.
std::optional<int> formatVersion(sqlite3* db);

}  // namespace vela::prefs
