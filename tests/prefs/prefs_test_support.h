// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/prefs/sqlite_store.h"

// Failure messages show values as the library describes them.
inline void PrintTo(const VelaValue& value, std::ostream* out) { *out << value.description(); }

namespace vela::prefs {

// Every test gets its own empty database in a fresh directory.
class FreshPreferences : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "vela-prefs-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    path_ = dir_ + "/preferences.sqlite3";
    setenv(kPathVariable, path_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv(kPathVariable);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  static constexpr char kDomain[] = "com.zentrex.VelaNotification.test";
  std::string dir_;
  std::string path_;
};

// A second connection to the database file that bypasses the store, to plant
// rows the store would never write and to look at what it did write.
class RawDatabase {
 public:
  explicit RawDatabase(const std::string& path) {
    sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  }
  ~RawDatabase() { sqlite3_close(db_); }
  RawDatabase(const RawDatabase&) = delete;
  RawDatabase& operator=(const RawDatabase&) = delete;

  bool exec(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

  void put(const char* domain, const char* key, const std::vector<std::uint8_t>& bytes) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO preferences VALUES (?1, ?2, ?3)", -1, &s, nullptr);
    sqlite3_bind_text(s, 1, domain, -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 2, key, -1, SQLITE_STATIC);
    sqlite3_bind_blob(s, 3, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    EXPECT_EQ(sqlite3_step(s), SQLITE_DONE) << sqlite3_errmsg(db_);
    sqlite3_finalize(s);
  }

  std::optional<std::vector<std::uint8_t>> get(const char* domain, const char* key) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db_, "SELECT value FROM preferences WHERE domain = ?1 AND key = ?2", -1, &s, nullptr);
    sqlite3_bind_text(s, 1, domain, -1, SQLITE_STATIC);
    sqlite3_bind_text(s, 2, key, -1, SQLITE_STATIC);
    std::optional<std::vector<std::uint8_t>> out;
    if (sqlite3_step(s) == SQLITE_ROW) {
      const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, 0));
      out.emplace(p, p + sqlite3_column_bytes(s, 0));
    }
    sqlite3_finalize(s);
    return out;
  }

  std::string integrityCheck() {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db_, "PRAGMA integrity_check", -1, &s, nullptr);
    std::string result = sqlite3_step(s) == SQLITE_ROW ? reinterpret_cast<const char*>(sqlite3_column_text(s, 0)) : "";
    sqlite3_finalize(s);
    return result;
  }

 private:
  sqlite3* db_ = nullptr;
};

// Runs `body` in a forked child whose exit status is body's result. The child
// never returns into the test framework.
template <typename Body>
pid_t runInChild(Body&& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

// The child's exit status, or -1 if it did not exit normally.
inline int exitStatus(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

}  // namespace vela::prefs
