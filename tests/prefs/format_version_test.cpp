// SPDX-License-Identifier: MIT
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include <vela/VelaConstants.h>
#include <vela/VelaPreferencesUtil.h>

#include "platform/prefs/cbor_codec.h"
#include "prefs_test_support.h"

namespace vela::prefs {
namespace {

using Prefs = VelaPreferencesUtil;

class APreferenceFileFormat : public FreshPreferences {
 protected:
  // Our table holding "k" = "theirs", stamped with `version` (0: unstamped,
  // as builds made before the version was kept left their files).
  void plantDatabase(int version, bool wal) { plantDatabaseAt(path_, kDomain, version, wal); }
  static void plantDatabaseAt(const std::string& path, std::string_view domain, int version, bool wal) {
    RawDatabase raw(path);
    if (wal) {
      ASSERT_EQ(raw.scalar("PRAGMA journal_mode=WAL"), "wal");
    }
    ASSERT_TRUE(
        raw.exec("CREATE TABLE preferences (domain TEXT, key TEXT, value BLOB, PRIMARY KEY (domain, key))"
                 " WITHOUT ROWID"));
    raw.put(std::string(domain).c_str(), "k", theirs());
    ASSERT_TRUE(raw.exec(("PRAGMA user_version = " + std::to_string(version)).c_str()));
  }

  static std::vector<std::uint8_t> theirs() { return *encodeValue("theirs"); }
  static std::string theirsAsText() {
    const auto bytes = theirs();
    return {bytes.begin(), bytes.end()};
  }

  std::optional<std::string> rawScalar(const char* sql) const { return RawDatabase(path_).scalar(sql); }

  // Every file of the test's directory with its bytes: a change to the
  // database, or a journal, WAL or lock file beside it, shows here.
  std::map<std::string, std::string> directorySnapshot() const { return snapshotOf(dir_); }
  static std::map<std::string, std::string> snapshotOf(const std::string& directory) {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      std::ifstream in(entry.path(), std::ios::binary);
      files[entry.path().filename().string()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    return files;
  }
};

TEST_F(APreferenceFileFormat, StampsANewDatabaseWithVersionOne) {
  Prefs::setString("v", "k", kDomain);
  EXPECT_EQ(rawScalar("PRAGMA user_version"), "1");
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "v");
}

TEST_F(APreferenceFileFormat, RefusesAFileOfAnotherVersionAndLeavesItUntouched) {
  plantDatabase(99, /*wal=*/false);
  const auto before = directorySnapshot();
  ASSERT_EQ(before.size(), 1u) << "only the database file, no journal";
  SqliteStore& store = SqliteStore::shared();

  EXPECT_EQ(Prefs::objectForKey("k", kDomain), std::nullopt);
  EXPECT_NE(store.lastFailure().find("format version 99"), std::string::npos) << store.lastFailure();
  EXPECT_TRUE(Prefs::dictionaryForDomain(kDomain).empty());
  EXPECT_FALSE(store.setValue(kDomain, "k", VelaValue("ours")));
  EXPECT_NE(store.lastFailure().find("format version 99"), std::string::npos) << store.lastFailure();
  EXPECT_FALSE(store.setValue(kDomain, "k", std::nullopt));
  Prefs::setString("ours", "new", kDomain);
  Prefs::removeKey("k", kDomain);

  EXPECT_TRUE(directorySnapshot() == before) << "the refused file, or what lies beside it, changed";
  EXPECT_EQ(rawScalar("PRAGMA user_version"), "99");
  EXPECT_EQ(rawScalar("SELECT count(*) FROM preferences"), "1");
  EXPECT_EQ(rawScalar("SELECT value FROM preferences WHERE key = 'k'"), theirsAsText());
}

TEST_F(APreferenceFileFormat, RefusesToWriteAFileClaimedByAnotherVersionAfterItWasOpened) {
  plantDatabase(0, /*wal=*/true);
  ASSERT_EQ(Prefs::stringForKey("k", kDomain), "theirs");  // the store's connection is open now
  ASSERT_TRUE(RawDatabase(path_).exec("PRAGMA user_version = 2"));

  EXPECT_FALSE(SqliteStore::shared().setValue(kDomain, "k", VelaValue("ours")));
  EXPECT_EQ(Prefs::objectForKey("k", kDomain), std::nullopt);
  EXPECT_EQ(rawScalar("PRAGMA user_version"), "2");
  EXPECT_EQ(rawScalar("SELECT value FROM preferences WHERE key = 'k'"), theirsAsText());
}

TEST_F(APreferenceFileFormat, AcceptsAnUnstampedFileOfEarlierBuildsAndStampsItOnWriting) {
  plantDatabase(0, /*wal=*/true);
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "theirs");
  EXPECT_EQ(Prefs::dictionaryForDomain(kDomain), (VelaDictionary{{"k", "theirs"}}));

  Prefs::setString("ours", "new", kDomain);
  EXPECT_EQ(rawScalar("PRAGMA user_version"), "1");
  EXPECT_EQ(Prefs::dictionaryForDomain(kDomain), (VelaDictionary{{"k", "theirs"}, {"new", "ours"}}));
}

TEST_F(APreferenceFileFormat, UsesARefusedFileOnceItsVersionIsKnownAgain) {
  plantDatabase(99, /*wal=*/false);
  ASSERT_EQ(Prefs::objectForKey("k", kDomain), std::nullopt);
  ASSERT_TRUE(RawDatabase(path_).exec("PRAGMA user_version = 1"));

  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "theirs");
  EXPECT_TRUE(SqliteStore::shared().setValue(kDomain, "k", VelaValue("ours")));
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), "ours");
  EXPECT_EQ(SqliteStore::shared().lastFailure(), "");
}

TEST_F(APreferenceFileFormat, KeepsTheServicesReadersAndItsWriterOffAFileOfAnotherVersion) {
  const std::string_view domain = kVelaNotification_Pref_Domain;
  ASSERT_TRUE(std::filesystem::create_directory(stateDir_));
  plantDatabaseAt(servicePath_, domain, 99, /*wal=*/false);
  const auto before = snapshotOf(stateDir_);

  EXPECT_EQ(Prefs::objectForKey("k", domain), std::nullopt);
  EXPECT_TRUE(Prefs::dictionaryForDomain(domain).empty());
  SqliteStore& reader = SqliteStore::serviceReader();
  EXPECT_NE(reader.lastFailure().find("format version 99"), std::string::npos) << reader.lastFailure();
  const auto writer = SqliteStore::serviceWriter(servicePath_);
  EXPECT_FALSE(writer->setValue(domain, "k", VelaValue("ours")));
  EXPECT_NE(writer->lastFailure().find("format version 99"), std::string::npos) << writer->lastFailure();
  EXPECT_FALSE(writer->setValue(domain, "k", std::nullopt));

  EXPECT_TRUE(snapshotOf(stateDir_) == before) << "the refused file, or what lies beside it, changed";
  ASSERT_TRUE(RawDatabase(servicePath_).exec("PRAGMA user_version = 1"));
  EXPECT_EQ(Prefs::stringForKey("k", domain), "theirs") << "refused for its version only";
}

}  // namespace
}  // namespace vela::prefs
