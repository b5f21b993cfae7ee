// SPDX-License-Identifier: MIT
#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include <vela/VelaPreferencesUtil.h>

#include "platform/prefs/cbor_codec.h"
#include "prefs_test_support.h"

namespace vela::prefs {
namespace {

using Prefs = VelaPreferencesUtil;

template <typename T>
std::optional<VelaValue> asValue(const std::optional<T>& typed) {
  return typed ? std::optional<VelaValue>(*typed) : std::nullopt;
}

class APreferenceStore : public FreshPreferences {};

TEST_F(APreferenceStore, TypedReadersReturnOnlyTheirOwnType) {
  using Type = VelaValue::Type;
  const std::vector<std::pair<Type, std::function<std::optional<VelaValue>()>>> readers = {
      {Type::kString, [] { return asValue(Prefs::stringForKey("k", kDomain)); }},
      {Type::kDate, [] { return asValue(Prefs::dateForKey("k", kDomain)); }},
      {Type::kDictionary, [] { return asValue(Prefs::dictionaryForKey("k", kDomain)); }},
      {Type::kArray, [] { return asValue(Prefs::arrayForKey("k", kDomain)); }},
      {Type::kData, [] { return asValue(Prefs::dataForKey("k", kDomain)); }},
  };
  const std::vector<VelaValue> stored = {"text",
                                         7,
                                         2.5,
                                         true,
                                         VelaDate{86400},
                                         VelaData{1, 2},
                                         VelaArray{"a", 1},
                                         VelaDictionary{{"a", VelaArray{}}},
                                         VelaSet{{"a"}}};
  for (const VelaValue& value : stored) {
    Prefs::setObject(value, "k", kDomain);
    EXPECT_EQ(Prefs::objectForKey("k", kDomain), value);
    for (const auto& [type, read] : readers) {
      const auto got = read();
      EXPECT_EQ(got.has_value(), type == value.type()) << VelaValueTypeName(type) << " reader, " << value.description();
      if (got) {
        EXPECT_EQ(*got, value);
      }
    }
  }
}

TEST_F(APreferenceStore, ReadsBooleansAndIntegersByTheCoercionRules) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  struct Case {
    VelaValue stored;
    bool asBool;
    std::intptr_t asInteger;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {true, true, 1}, {false, false, 0}, {0, false, 0}, {-3, true, -3}, {kMax, true, kMax},
      {2.9, true, 2}, {-2.9, true, -2}, {0.0, false, 0}, {1e300, true, kMax}, {std::nan(""), true, 0},
      {"TRUE", true, 0}, {"Yes", true, 0}, {"1", true, 1}, {"false", false, 0}, {"NO", false, 0}, {"0", false, 0},
      {"42", false, 42}, {"-17", false, -17}, {"+5", false, 5}, {"+-5", false, 0}, {" 5", false, 0},
      {"5 ", false, 0}, {"5.0", false, 0}, {"", false, 0}, {"99999999999999999999", false, 0}, {"y", false, 0},
      {VelaDate{1}, false, 0}, {VelaData{1}, false, 0}, {VelaArray{1}, false, 0}, {VelaDictionary{{"a", 1}}, false, 0},
  };
  // clang-format on
  for (const Case& c : cases) {
    Prefs::setObject(c.stored, "k", kDomain);
    EXPECT_EQ(Prefs::boolForKey("k", kDomain), c.asBool) << c.stored.description();
    EXPECT_EQ(Prefs::integerForKey("k", kDomain), c.asInteger) << c.stored.description();
  }
  EXPECT_FALSE(Prefs::boolForKey("absent", kDomain));
  EXPECT_EQ(Prefs::integerForKey("absent", kDomain), 0);
}

TEST_F(APreferenceStore, StoresBooleansAsBooleansAndIntegersAsIntegers) {
  Prefs::setBool(true, "on", kDomain);
  Prefs::setBool(false, "off", kDomain);
  Prefs::setInteger(-5, "n", kDomain);
  EXPECT_EQ(Prefs::objectForKey("on", kDomain), VelaValue(true));
  EXPECT_EQ(Prefs::objectForKey("off", kDomain), VelaValue(false));
  EXPECT_EQ(Prefs::objectForKey("n", kDomain), VelaValue(-5));
  RawDatabase raw(path_);
  EXPECT_EQ(raw.scalar("SELECT value FROM preferences WHERE key = 'on'"), "\xf5");
  EXPECT_EQ(raw.scalar("SELECT value FROM preferences WHERE key = 'off'"), "\xf4");
}

TEST_F(APreferenceStore, NilRemovesTheKeyInItsDomainOnly) {
  const std::vector<std::function<void()>> removers = {
      [] { Prefs::removeKey("k", kDomain); },
      [] { Prefs::setString(std::nullopt, "k", kDomain); },
      [] { Prefs::setDate(std::nullopt, "k", kDomain); },
      [] { Prefs::setDictionary(std::nullopt, "k", kDomain); },
      [] { Prefs::setArray(std::nullopt, "k", kDomain); },
      [] { Prefs::setData(std::nullopt, "k", kDomain); },
      [] { Prefs::setObject(std::nullopt, "k", kDomain); },
  };
  Prefs::setString("kept", "k", "other.domain");
  for (const auto& remove : removers) {
    Prefs::setString("v", "k", kDomain);
    remove();
    EXPECT_EQ(Prefs::objectForKey("k", kDomain), std::nullopt);
    remove();  // removing an absent key is harmless
  }
  EXPECT_EQ(Prefs::stringForKey("k", "other.domain"), "kept");
}

TEST_F(APreferenceStore, LivesUnderXdgConfigHomeOrHomeInPrivateFiles) {
  auto expectPrivateStoreIn = [](const std::string& directory) {
    const std::string file = directory + "/preferences.sqlite3";
    EXPECT_EQ(SqliteStore::databasePath(), file);
    Prefs::setString("v", "k", kDomain);
    EXPECT_EQ(Prefs::stringForKey("k", kDomain), "v");
    struct stat info {};
    ASSERT_EQ(stat(directory.c_str(), &info), 0) << directory;
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    ASSERT_EQ(stat(file.c_str(), &info), 0) << file;
    EXPECT_EQ(info.st_mode & 0077, 0u);
  };
  const char* home = getenv("HOME");
  const std::string savedHome = home ? home : "";
  unsetenv(kPathVariable);
  setenv("XDG_CONFIG_HOME", (dir_ + "/xdg").c_str(), 1);
  expectPrivateStoreIn(dir_ + "/xdg/vela");
  unsetenv("XDG_CONFIG_HOME");
  setenv("HOME", (dir_ + "/home").c_str(), 1);
  expectPrivateStoreIn(dir_ + "/home/.config/vela");
  setenv("HOME", savedHome.c_str(), 1);
}

TEST_F(APreferenceStore, ReadsUndecodableValuesAsAbsent) {
  Prefs::setString("fine", "good", kDomain);
  RawDatabase raw(path_);
  raw.put(kDomain, "garbage", {0xff, 0x00, 0x13});
  raw.put(kDomain, "null", {0xf6});
  raw.put(kDomain, "empty", {});
  ASSERT_TRUE(raw.exec("INSERT INTO preferences VALUES ('com.zentrex.VelaNotification.test', 'text', 'abc')"));
  for (const char* key : {"garbage", "null", "empty", "text"}) {
    EXPECT_EQ(Prefs::objectForKey(key, kDomain), std::nullopt) << key;
    EXPECT_FALSE(Prefs::boolForKey(key, kDomain)) << key;
    EXPECT_EQ(Prefs::integerForKey(key, kDomain), 0) << key;
  }
  EXPECT_EQ(Prefs::stringForKey("good", kDomain), "fine");
}

TEST_F(APreferenceStore, TreatsMissingOrUnusableFilesAsEmpty) {
  EXPECT_EQ(Prefs::objectForKey("k", kDomain), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(path_)) << "a read must not create the database";

  const std::string notADatabase = "this is not an SQLite database, and must stay as it is";
  std::ofstream(path_) << notADatabase;
  Prefs::setString("v", "k", kDomain);
  EXPECT_EQ(Prefs::stringForKey("k", kDomain), std::nullopt);
  std::ifstream in(path_);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), notADatabase);

  for (const std::string& unusable : {dir_, path_ + "/below-a-file.sqlite3"}) {
    setenv(kPathVariable, unusable.c_str(), 1);
    Prefs::setString("v", "k", kDomain);
    EXPECT_EQ(Prefs::objectForKey("k", kDomain), std::nullopt) << unusable;
  }
}

TEST_F(APreferenceStore, SurvivesADamagedDatabaseFile) {
  constexpr int kRows = 2000;
  auto valueOf = [](int i) { return VelaValue(std::string(40, 'v') + std::to_string(i)); };
  {
    RawDatabase raw(path_);
    ASSERT_TRUE(
        raw.exec("CREATE TABLE preferences (domain TEXT, key TEXT, value BLOB, PRIMARY KEY (domain, key))"
                 " WITHOUT ROWID; BEGIN"));
    for (int i = 0; i < kRows; ++i) raw.put(kDomain, std::to_string(i).c_str(), *encodeValue(valueOf(i)));
    ASSERT_TRUE(raw.exec("COMMIT"));
  }
  // Overwrite the middle of the table's pages, leaving the header intact.
  std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
  const std::string damage(6000, '\x5a');
  file.seekp(5 * 4096 + 100);
  file.write(damage.data(), static_cast<std::streamsize>(damage.size()));
  file.close();
  for (int i = 0; i < kRows; ++i) {
    const auto value = Prefs::objectForKey(std::to_string(i), kDomain);
    if (value) {
      EXPECT_EQ(*value, valueOf(i));
    }
  }
}

}  // namespace
}  // namespace vela::prefs
