// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <vela/VelaValue.h>

#include "platform/prefs/store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vela::prefs {

// Environment variable that names the database file; when unset the file is
// $XDG_CONFIG_HOME/vela/preferences.sqlite3, with ~/.config as the default.
inline constexpr const char* kPathVariable = "VELA_PREFERENCES_PATH";
// How long a write waits for another process's write to finish.
inline constexpr int kBusyTimeoutMs = 5000;
// The layout of the data this build reads and writes, kept in the database's
// user_version. Files made before the version was kept carry 0 and are this
// layout; any other version is some other build's, and is left alone.
inline constexpr int kFormatVersion = 1;

// The current user's preferences: one SQLite database holding a row per
// (domain, key) whose value is the CBOR encoding of a VelaValue.
//
// One connection per process, guarded by a mutex. Each read is a single
// statement in its own implicit transaction, each write a single committed
// statement, so nothing is cached between calls. The database location is
// looked up on every call; a change of environment moves to the new file.
//
// Failure is never reported past this class as anything but absence: a file
// that is missing, unreadable, not a database, corrupt or of another format
// version reads as no value, and a value that does not decode reads as no
// value. A file of another format version is never modified, not even by a
// write, which fails. lastFailure() says why, for diagnostics.
//
// Thread: any. Blocks: a write waits up to kBusyTimeoutMs for another
// process's write; reads never wait for writers.
class SqliteStore final : public Store {
 public:
  // The process's store. It lives until the process ends, so that it stays
  // usable from other static destructors and atexit handlers.
  static SqliteStore& shared();

  // Never destroyed: see shared().
  ~SqliteStore() override = default;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;
  SqliteStore(SqliteStore&&) = delete;
  SqliteStore& operator=(SqliteStore&&) = delete;

  std::optional<VelaValue> copyValue(std::string_view domain, std::string_view key) override;

  // Every key of `domain` with its value; keys whose value does not decode are
  // left out. Empty when the domain or the store is absent or unreadable.
  VelaDictionary copyDomain(std::string_view domain) override;

  // Stores `value` under (domain, key), or removes the key for nullopt. True
  // once the change is committed (durable: the WAL is synced before return).
  [[nodiscard]] bool setValue(std::string_view domain, std::string_view key,
                              const std::optional<VelaValue>& value) override;

  void synchronize(std::string_view domain) override;

  // The file the current environment selects, or empty if none can be found.
  static std::string databasePath();

  // Why the last call could not use the database file (it could not be
  // opened, has another format version, or refused a write), or empty when
  // it could.
  std::string lastFailure() override;

 private:
  enum class Access { kRead, kWrite };

  struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

  SqliteStore() = default;

  // All of the below run with mutex_ held.
  [[nodiscard]] bool ready(Access access);
  [[nodiscard]] bool open(Access access);
  [[nodiscard]] bool prepareForWriting();
  // Records `reason` as the last failure; always false, for `return fail(...)`.
  bool fail(std::string reason);
  void close();
  void abandonInheritedConnection();
  sqlite3_stmt* statement(Statement& slot, const char* sql);

  void beforeFork();
  void afterFork();

  std::mutex mutex_;
  sqlite3* db_ = nullptr;  // guarded by mutex_, as is everything below
  pid_t pid_ = 0;          // process that opened db_
  std::string path_;       // file db_ has open
  std::string wanted_;     // scratch for the path lookup, kept to avoid an allocation per call
  bool schemaReady_ = false;
  std::string failure_;
  Statement select_;
  Statement upsert_;
  Statement delete_;
  // Connections opened by a parent process; see abandonInheritedConnection().
  std::vector<sqlite3*> inherited_;
};

}  // namespace vela::prefs
