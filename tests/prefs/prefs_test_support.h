// SPDX-License-Identifier: MIT
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "platform/prefs/sqlite_store.h"
#include "printers.h"

namespace vela::prefs {

// Every test gets its own empty user's database in a fresh directory, and
// the service's database in a directory below it, as velad's state directory.
class FreshPreferences : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "vela-prefs-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    path_ = dir_ + "/preferences.sqlite3";
    stateDir_ = dir_ + "/state";
    servicePath_ = stateDir_ + "/preferences.sqlite3";
    setenv(kPathVariable, path_.c_str(), 1);
    setenv(kServicePathVariable, servicePath_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv(kPathVariable);
    unsetenv(kServicePathVariable);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  // Not a service domain, despite its name.
  static constexpr char kDomain[] = "com.zentrex.VelaNotification.test";
  std::string dir_;
  std::string path_;
  std::string stateDir_;
  std::string servicePath_;
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

  // The first column of the first row `sql` yields, as bytes.
  std::optional<std::string> scalar(const char* sql) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db_, sql, -1, &s, nullptr);
    std::optional<std::string> out;
    if (sqlite3_step(s) == SQLITE_ROW) {
      out.emplace(static_cast<const char*>(sqlite3_column_blob(s, 0)), sqlite3_column_bytes(s, 0));
    }
    sqlite3_finalize(s);
    return out;
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
