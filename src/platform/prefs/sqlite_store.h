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
#include "platform/prefs/store_paths.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vela::prefs {

// How long a write waits for another process's write to finish, and a read of
// the service's store for a commit under way.
inline constexpr int kBusyTimeoutMs = 5000;
// The layout of the data this build reads and writes, kept in the database's
// user_version. Files made before the version was kept carry 0 and are this
// layout; any other version is some other build's, and is left alone.
inline constexpr int kFormatVersion = 1;

// One preference database: a SQLite file holding a row per (domain, key)
// whose value is the CBOR encoding of a VelaValue. There are two of them.
//
// The user's own (shared()) holds every domain but the service's. It lies
// where findUserDatabase() says, is created on the first write, private to
// the user (0600, in directories made 0700), and uses a write-ahead log, so
// that reads never wait for another process's write.
//
// The service's (serviceReader(), serviceWriter()) holds the service's domains
// for the whole system: only the daemon writes it, every user reads it. It
// lies where findServiceDatabase() says, in the daemon's state directory. Its
// writer creates it readable by all (0644, in directories made 0755, whatever
// the umask) and it uses the rollback journal: a database with a write-ahead
// log can only be opened by a process allowed to write beside it, and its
// readers may write nothing there. The reader opens it read-only and never
// creates it; a read waits, up to kBusyTimeoutMs, only for a commit that is
// being written.
//
// One connection per store, guarded by a mutex. Each read is a single
// statement in its own implicit transaction, each write a single committed
// statement, so nothing is cached between calls. Where the file is is looked
// up on every call (except for a writer made for one path); a change of
// environment moves to the new file.
//
// Failure is never reported past this class as anything but absence: a file
// that is missing, unreadable, not a database, corrupt or of another format
// version reads as no value, and a value that does not decode reads as no
// value. A file of another format version is never modified, not even by a
// write, which fails. lastFailure() says why, for diagnostics.
//
// Thread: any. Blocks: a write waits up to kBusyTimeoutMs for another
// process's write.
class SqliteStore final : public Store {
 public:
  // The current user's store, read and written by this process. It lives
  // until the process ends, so that it stays usable from other static
  // destructors and atexit handlers; fork() leaves the child nothing to
  // inherit, and both sides reopen the file on their next call.
  static SqliteStore& shared();

  // The service's store as every process but the daemon sees it: read-only,
  // so every write fails. Lives and crosses fork() as shared() does.
  static SqliteStore& serviceReader();

  // The service's store as the daemon writes it, at `path` (the daemon's
  // state directory's preferences.sqlite3). Opens nothing yet: the first
  // write creates what is missing, and every write is committed and synced
  // before it returns, or fails and says why in lastFailure(). Use it in the
  // process that made it.
  static std::unique_ptr<SqliteStore> serviceWriter(std::string path);

  ~SqliteStore() override;
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;
  SqliteStore(SqliteStore&&) = delete;
  SqliteStore& operator=(SqliteStore&&) = delete;

  std::optional<VelaValue> copyValue(std::string_view domain, std::string_view key) override;

  // Every key of `domain` with its value; keys whose value does not decode are
  // left out. Empty when the domain or the store is absent or unreadable.
  VelaDictionary copyDomain(std::string_view domain) override;

  // Stores `value` under (domain, key), or removes the key for nullopt. True
  // once the change is committed and synced.
  [[nodiscard]] bool setValue(std::string_view domain, std::string_view key,
                              const std::optional<VelaValue>& value) override;

  void synchronize(std::string_view domain) override;

  // The file the current environment selects for shared(), or empty if none
  // can be found.
  static std::string databasePath();
  // The file the current environment selects for serviceReader().
  static std::string serviceDatabasePath();

  // Why the last call could not use the database file (it could not be
  // opened, has another format version, refused a write, or the store is
  // read-only), or empty when it could.
  std::string lastFailure() override;

 private:
  // Who shares the file, which decides how it is created and journalled.
  enum class Sharing { kOwnUser, kAllUsers };
  enum class Mode { kReadWrite, kReadOnly };
  enum class Operation { kRead, kWrite };
  // Finds the file for this call; false when there is none.
  using PathLookup = bool (*)(std::string& out);

  struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;
  struct ProcessStores;

  // `lookup` finds the file, or is null for the one file `fixedPath`.
  SqliteStore(PathLookup lookup, std::string fixedPath, Sharing sharing, Mode mode);
  static ProcessStores& processStores();

  // All of the below run with mutex_ held.
  [[nodiscard]] bool ready(Operation operation);
  [[nodiscard]] bool locate();
  [[nodiscard]] bool open(Operation operation);
  [[nodiscard]] bool prepareForWriting();
  // Records `reason` as the last failure; always false, for `return fail(...)`.
  bool fail(std::string reason);
  void close();
  void abandonInheritedConnection();
  sqlite3_stmt* statement(Statement& slot, const char* sql);

  void beforeFork();
  void afterFork();

  const PathLookup lookup_;
  const std::string fixedPath_;
  const Sharing sharing_;
  const Mode mode_;

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
