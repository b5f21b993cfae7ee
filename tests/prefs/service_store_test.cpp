// SPDX-License-Identifier: MIT
// The service's domains: read from the system-wide store the daemon writes,
// never written by anyone else; every other domain stays in the user's own.
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include <gtest/gtest.h>

#include <vela/VelaConstants.h>
#include <vela/VelaPreferencesUtil.h>

#include "prefs_test_support.h"

namespace vela::prefs {
namespace {

using Prefs = VelaPreferencesUtil;

std::array<std::string_view, 5> serviceDomains() {
  return {kVelaNotification_Pref_Domain, kVelaNotification_NotBackedUp_Pref_Domain,
          kVelaNotification_Public_NotBackedUp_Pref_Domain, kVelaNotification_PostWipe_Pref_Domain,
          kWardenEnabledPrefDomain};
}

// Every file below `directory` with its bytes, and every directory: a new
// file or directory, a journal left behind or a changed database shows here.
std::map<std::string, std::string> treeSnapshot(const std::string& directory) {
  std::map<std::string, std::string> files;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory, ignored)) {
    if (entry.is_directory()) {
      files[entry.path().string() + "/"];
      continue;
    }
    std::ifstream in(entry.path(), std::ios::binary);
    files[entry.path().string()] = std::string(std::istreambuf_iterator<char>(in), {});
  }
  return files;
}

mode_t permissionsOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

class TheServiceStore : public FreshPreferences {
 protected:
  // The test process acting as velad.
  std::unique_ptr<SqliteStore> daemonWriter() const { return SqliteStore::serviceWriter(servicePath_); }
};

// ---- Routing --------------------------------------------------------------------

TEST_F(TheServiceStore, ServesTheServiceDomainsAndTheUsersStoreEveryOther) {
  const auto daemon = daemonWriter();
  SqliteStore& user = SqliteStore::shared();
  for (const std::string_view domain : serviceDomains()) {
    ASSERT_TRUE(daemon->setValue(domain, "k", VelaValue("from the service"))) << daemon->lastFailure();
    ASSERT_TRUE(user.setValue(domain, "k", VelaValue("a user's copy")));
  }
  ASSERT_TRUE(daemon->setValue(kDomain, "k", VelaValue("the service's copy")));
  ASSERT_TRUE(user.setValue(kDomain, "k", VelaValue("from the user")));

  for (const std::string_view domain : serviceDomains()) {
    Prefs::synchronizeDomain(domain);
    EXPECT_EQ(Prefs::stringForKey("k", domain), "from the service") << domain;
    EXPECT_EQ(Prefs::dictionaryForDomain(domain), (VelaDictionary{{"k", "from the service"}})) << domain;
  }
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "from the user");
  EXPECT_EQ(Prefs::dictionaryForDomain(kDomain), (VelaDictionary{{"k", "from the user"}}));
}

TEST_F(TheServiceStore, DropsAClientsWritesWithoutCreatingAFile) {
  for (const std::string_view domain : serviceDomains()) {
    Prefs::setString("v", "k", domain);
    Prefs::setBool(true, "b", domain);
    Prefs::removeKey("k", domain);
    EXPECT_EQ(Prefs::objectForKey("b", domain), std::nullopt) << domain;
  }
  EXPECT_TRUE(treeSnapshot(dir_).empty()) << "a dropped write created a file";
  EXPECT_FALSE(store().setValue(kVelaNotification_Pref_Domain, "k", VelaValue(1)));
  EXPECT_NE(store().lastFailure().find("only the daemon writes it"), std::string::npos) << store().lastFailure();
}

TEST_F(TheServiceStore, DropsAClientsWritesWithoutChangingEitherFile) {
  const auto daemon = daemonWriter();
  for (const std::string_view domain : serviceDomains()) ASSERT_TRUE(daemon->setValue(domain, "k", VelaValue("kept")));
  Prefs::setString("mine", "k", kDomain);
  const auto before = treeSnapshot(dir_);

  for (const std::string_view domain : serviceDomains()) {
    Prefs::setString("replaced", "k", domain);
    Prefs::setObject(VelaDictionary{{"a", 1}}, "new", domain);
    Prefs::removeKey("k", domain);
    EXPECT_EQ(Prefs::stringForKey("k", domain), "kept") << domain;
    EXPECT_EQ(Prefs::objectForKey("new", domain), std::nullopt) << domain;
  }
  EXPECT_TRUE(treeSnapshot(dir_) == before) << "a dropped write changed a database";
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "mine");
}

TEST_F(TheServiceStore, FollowsADomainNameAHostReassigns) {
  const std::string_view original = kVelaNotification_PostWipe_Pref_Domain;
  kVelaNotification_PostWipe_Pref_Domain = "com.example.moved.postwipe";
  const auto daemon = daemonWriter();
  ASSERT_TRUE(daemon->setValue("com.example.moved.postwipe", "k", VelaValue("service")));
  Prefs::setString("dropped", "k", "com.example.moved.postwipe");
  const std::optional<std::string> underNewName = Prefs::stringForKey("k", "com.example.moved.postwipe");
  // The old name is an ordinary domain now, written to the user's store.
  Prefs::setString("user", "k", original);
  const std::optional<std::string> underOldName = Prefs::stringForKey("k", original);
  kVelaNotification_PostWipe_Pref_Domain = original;

  EXPECT_EQ(underNewName, "service");
  EXPECT_EQ(underOldName, "user");
  EXPECT_EQ(Prefs::objectForKey("k", original), std::nullopt) << "back to the service's store, which has no key";
}

// ---- The daemon's writer and the readers ----------------------------------------

TEST_F(TheServiceStore, WriterCreatesAWorldReadableRollbackJournalledFileThatAFreshReaderSees) {
  const mode_t savedMask = umask(077);  // a private umask must not make the store private
  const auto daemon = daemonWriter();
  const bool written = daemon->setValue(kVelaNotification_Public_NotBackedUp_Pref_Domain, "k", VelaValue("v"));
  umask(savedMask);
  ASSERT_TRUE(written) << daemon->lastFailure();

  EXPECT_EQ(permissionsOf(stateDir_), 0755u);
  EXPECT_EQ(permissionsOf(servicePath_), 0644u);
  EXPECT_EQ(treeSnapshot(stateDir_).size(), 1u) << "no journal left beside the database";
  RawDatabase raw(servicePath_);
  EXPECT_EQ(raw.scalar("PRAGMA journal_mode"), "delete");
  EXPECT_EQ(raw.scalar("PRAGMA user_version"), "1");

  // A child has none of this process's connections.
  const pid_t child = runInChild(
      [] { return Prefs::stringForKey("k", kVelaNotification_Public_NotBackedUp_Pref_Domain) == "v" ? 0 : 1; });
  EXPECT_EQ(exitStatus(child), 0);
  ASSERT_TRUE(daemon->setValue(kVelaNotification_Public_NotBackedUp_Pref_Domain, "k", std::nullopt));
  EXPECT_EQ(Prefs::objectForKey("k", kVelaNotification_Public_NotBackedUp_Pref_Domain), std::nullopt);
}

TEST_F(TheServiceStore, ReadsAMissingFileAsEmptyAndNeverCreatesIt) {
  SqliteStore& reader = SqliteStore::serviceReader();
  EXPECT_EQ(Prefs::objectForKey("k", kVelaNotification_Pref_Domain), std::nullopt);
  EXPECT_TRUE(Prefs::dictionaryForDomain(kWardenEnabledPrefDomain).empty());
  EXPECT_FALSE(reader.setValue(kVelaNotification_Pref_Domain, "k", VelaValue(1)));
  EXPECT_NE(reader.lastFailure().find("read-only"), std::string::npos) << reader.lastFailure();
  EXPECT_FALSE(std::filesystem::exists(stateDir_));
}

TEST_F(TheServiceStore, WriterReportsAFileItCannotMake) {
  std::ofstream(dir_ + "/a-file") << "in the way";
  const auto daemon = SqliteStore::serviceWriter(dir_ + "/a-file/preferences.sqlite3");
  EXPECT_FALSE(daemon->setValue(kWardenEnabledPrefDomain, kWardenEnabledPrefKey, VelaValue(true)));
  EXPECT_NE(daemon->lastFailure().find(dir_ + "/a-file/preferences.sqlite3"), std::string::npos)
      << daemon->lastFailure();
}

}  // namespace
}  // namespace vela::prefs
