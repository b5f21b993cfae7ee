// SPDX-License-Identifier: MIT
#include <map>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include <vela/VelaConstants.h>

namespace {

// Other processes find these only by their exact text.
struct Name {
  const char* symbol;
  std::string_view value;
  const char* expected;
};

#define VELA_NAME(symbol, expected) \
  Name { #symbol, symbol, expected }

const Name kPublishedNames[] = {
    VELA_NAME(kVelaAccountTokensDictKey, "accountTokens"),
    VELA_NAME(kVelaAccountDictVersionKey, "accountDictVersion"),
    VELA_NAME(kVelaAccountNameKey, "username"),
    VELA_NAME(kVelaAccountTokenKey, "authToken"),
    VELA_NAME(kVelaAccountUserInfoKey, "userInfo"),
    VELA_NAME(kVelaAccountPersonIDKey, "personID"),
    VELA_NAME(kVelaAccountPasswordKey, "password"),
    VELA_NAME(kVelaAccountUserIDKey, "userid"),
    VELA_NAME(kVelaAccountEnabledDataclassesKey, "enabledDataclasses"),
    VELA_NAME(kVelaAccountDataclassPropertiesKey, "dataclassProperties"),
    VELA_NAME(kVelaAccountDataclassPropAuthMechanismKey, "authMechanism"),
    VELA_NAME(kVelaAccountDataclassPropHostnameKey, "hostname"),
    VELA_NAME(kVelaAccountDataclassPropRelayEnvKey, "relayEnv"),
    VELA_NAME(kVelaAccountDataclassPropUriSchemeKey, "scheme"),
    VELA_NAME(kVelaTokenTypeKey, "tokenType"),
    VELA_NAME(kVelaTokenInternalKey, "tokenInternal"),
    VELA_NAME(kVelaTokenValueKey, "tokenValue"),
    VELA_NAME(kVelaTokenStatus, "tokenStatus"),
    VELA_NAME(kVelaTokenTypeAvailableWhenUnlocked, "availUnlocked"),
    VELA_NAME(kVelaTokenTypeAvailableAfterFirstUnlock, "availFirstUnlock"),
    VELA_NAME(kVelaTokenTypeAvailableAlways, "availAlways"),
    VELA_NAME(kVelaTokenStatusOK, "ok"),
    VELA_NAME(kVelaTokenStatusInternal, "internal"),
    VELA_NAME(kVelaTokenStatusNotAccessible, "notAccessible"),
    VELA_NAME(kVelaTokenStatusNotFound, "notFound"),
    VELA_NAME(kVelaTokenStatusUnknownError, "unknownAccessError"),
    VELA_NAME(kVelaMessageTopicURIKey, "vela.notify.topic"),
    VELA_NAME(kTopicURIKey, "vela.notify.topic"),
    VELA_NAME(kErrorMsgKey, "vela.notify.errorMsg"),
    VELA_NAME(kConnectJIDKey, "vela.notify.jid"),
    VELA_NAME(kVelaLaunchableExecArgsKey, "AppArgs"),
    VELA_NAME(kVelaNotification_App_ID, "com.zentrex.VelaNotification"),
    VELA_NAME(kVelaNotification_Pref_Domain, "com.zentrex.VelaNotification"),
    VELA_NAME(kVelaNotification_NotBackedUp_Pref_Domain, "com.zentrex.VelaNotification.notbackedup"),
    VELA_NAME(kVelaNotification_Public_NotBackedUp_Pref_Domain, "com.zentrex.VelaNotification.public.notbackedup"),
    VELA_NAME(kVelaNotification_PostWipe_Pref_Domain, "com.zentrex.VelaNotification.postwipe"),
    VELA_NAME(kWardenEnabledPrefDomain, "com.zentrex.Warden"),
    VELA_NAME(kWardenEnabledPrefKey, "WardenEnabled"),
    VELA_NAME(kVelaAccountMigratedNotification, "com.zentrex.VelaNotification.AccountMigrated"),
    VELA_NAME(kVelaMigrateAccountNotification, "com.zentrex.VelaNotification.MigrateAccount"),
    VELA_NAME(kLocusStateDidChangeNotification, "com.zentrex.VelaNotification.LocusStateDidChange"),
    VELA_NAME(kLostModeChangedNotification, "com.zentrex.nimbus.locus.lostmode.enable"),
    VELA_NAME(kStopLostModeAlarmNotification, "com.zentrex.nimbus.locus.lostmode.stopAlarm"),
    VELA_NAME(kLostModeIsActiveKey, "vela.lostModeActive"),
    VELA_NAME(kLostModeTrackingIsActiveKey, "vela.lostModeTrackingActive"),
    VELA_NAME(kLostModeScreenTextKey, "vela.lockScreenText"),
    VELA_NAME(kLostModeScreenOwnerNumKey, "vela.loclScreenOwnerNum"),
    VELA_NAME(kWardenAuthRight, "com.zentrex.VelaNotification.Warden.modify"),
    VELA_NAME(kWardenRemoveAuthRight, "com.zentrex.VelaNotification.Warden.remove"),
};

#undef VELA_NAME

TEST(PublishedNames, HaveTheirExactValues) {
  for (const Name& name : kPublishedNames) EXPECT_EQ(name.value, name.expected) << name.symbol;
}

TEST(PublishedNames, AreDistinctExceptTwoAliasesThatShareOneString) {
  const std::map<std::string, std::string> aliases{{"kVelaNotification_Pref_Domain", "kVelaNotification_App_ID"},
                                                   {"kTopicURIKey", "kVelaMessageTopicURIKey"}};
  std::map<std::string_view, const char*> firstWithValue;
  for (const Name& name : kPublishedNames) {
    auto [it, inserted] = firstWithValue.emplace(name.value, name.symbol);
    auto alias = aliases.find(name.symbol);
    EXPECT_EQ(!inserted, alias != aliases.end() && alias->second == it->second) << name.symbol << " vs " << it->second;
  }
  EXPECT_EQ(kVelaNotification_App_ID.data(), kVelaNotification_Pref_Domain.data());
  EXPECT_EQ(kVelaMessageTopicURIKey.data(), kTopicURIKey.data());
}

// Representation is part of the interface: only the domains are assignable,
// and the rights are plain C strings.
static_assert(!std::is_const_v<decltype(kVelaNotification_App_ID)>);
static_assert(!std::is_const_v<decltype(kVelaNotification_PostWipe_Pref_Domain)>);
static_assert(std::is_const_v<decltype(kTopicURIKey)>);
static_assert(std::is_same_v<decltype(kWardenAuthRight), const char[]>);

TEST(AccountEntryPoints, ReturnNilWhateverTheyArePassed) {
  int dummy = 0;
  EXPECT_EQ(VelaNotificationAddAccount(), nullptr);
  EXPECT_EQ(VelaNotificationAddAccount(&dummy, 7, 2.5), nullptr);
  EXPECT_EQ(VelaNotificationRemoveAccount(&dummy), nullptr);
  EXPECT_EQ(VelaNotificationRetrieveCurrentAccount(nullptr), nullptr);
  EXPECT_EQ(VelaNotificationRetrieveAllAccounts(), nullptr);
  EXPECT_EQ(dummy, 0);
}

}  // namespace
