// SPDX-License-Identifier: MIT
#include "platform/prefs/sqlite_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <sqlite3.h>

namespace vela::prefs {

// SQLite syncs the directory of the files it creates, but not of the
// database file, which is created here.
void syncDirectory(const std::string& directory) {
  const int fd = ::open(directory.empty() ? "/" : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  ::close(fd);
}

namespace {

// Creates the missing directories above `path` with `mode`, whatever the
// umask: they are private to the user, or readable by all, as the file is.
void makeParentDirectories(const std::string& path, mode_t mode) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    if (mkdir(directory.c_str(), mode) == 0) {
      chmod(directory.c_str(), mode);
      syncDirectory(directory.substr(0, directory.rfind('/')));
    } else if (errno != EEXIST) {
      return;
    }
  }
}

}  // namespace

void createDatabaseFile(const std::string& path, mode_t directoryMode, mode_t fileMode) {
  makeParentDirectories(path, directoryMode);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode);
  if (fd < 0) return;  // already there, or not creatable: opening it will tell
  fchmod(fd, fileMode);
  ::close(fd);
  syncDirectory(path.substr(0, path.rfind('/')));
}

int bindText(sqlite3_stmt* statement, int index, std::string_view text) {
  return sqlite3_bind_text64(statement, index, text.data() ? text.data() : "", text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

std::optional<int> formatVersion(sqlite3* db) {
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &prepared, nullptr) != SQLITE_OK) {
    sqlite3_finalize(prepared);
    return std::nullopt;
  }
  std::optional<int> version;
  if (sqlite3_step(prepared) == SQLITE_ROW) version = sqlite3_column_int(prepared, 0);
  sqlite3_finalize(prepared);
  return version;
}

}  // namespace vela::prefs
