// SPDX-License-Identifier: MIT
#include <vela/VelaConstants.h>

namespace vela::records {
namespace {

// Names that share a value share its characters too, so a reader comparing
// addresses sees one string, not two equal ones.
constexpr std::string_view kAppIdText = "com.zentrex.VelaNotification";
constexpr std::string_view kTopicUriText = "vela.notify.topic";

}  // namespace
}  // namespace vela::records

// constinit keeps every name out of dynamic initialisation, so other static
// initialisers can read them in any order.

constinit const std::string_view kVelaAccountTokensDictKey = "accountTokens";
constinit const std::string_view kVelaAccountDictVersionKey = "accountDictVersion";
constinit const std::string_view kVelaAccountNameKey = "username";
constinit const std::string_view kVelaAccountTokenKey = "authToken";
constinit const std::string_view kVelaAccountUserInfoKey = "userInfo";
constinit const std::string_view kVelaAccountPersonIDKey = "personID";
constinit const std::string_view kVelaAccountPasswordKey = "password";
constinit const std::string_view kVelaAccountUserIDKey = "userid";
constinit const std::string_view kVelaAccountEnabledDataclassesKey = "enabledDataclasses";
constinit const std::string_view kVelaAccountDataclassPropertiesKey = "dataclassProperties";
constinit const std::string_view kVelaAccountDataclassPropAuthMechanismKey = "authMechanism";
constinit const std::string_view kVelaAccountDataclassPropHostnameKey = "hostname";
constinit const std::string_view kVelaAccountDataclassPropRelayEnvKey = "relayEnv";
constinit const std::string_view kVelaAccountDataclassPropUriSchemeKey = "scheme";

constinit const std::string_view kVelaTokenTypeKey = "tokenType";
constinit const std::string_view kVelaTokenInternalKey = "tokenInternal";
constinit const std::string_view kVelaTokenValueKey = "tokenValue";
constinit const std::string_view kVelaTokenStatus = "tokenStatus";
constinit const std::string_view kVelaTokenTypeAvailableWhenUnlocked = "availUnlocked";
constinit const std::string_view kVelaTokenTypeAvailableAfterFirstUnlock = "availFirstUnlock";
constinit const std::string_view kVelaTokenTypeAvailableAlways = "availAlways";
constinit const std::string_view kVelaTokenStatusOK = "ok";
constinit const std::string_view kVelaTokenStatusInternal = "internal";
constinit const std::string_view kVelaTokenStatusNotAccessible = "notAccessible";
constinit const std::string_view kVelaTokenStatusNotFound = "notFound";
constinit const std::string_view kVelaTokenStatusUnknownError = "unknownAccessError";

constinit const std::string_view kVelaMessageTopicURIKey = vela::records::kTopicUriText;
constinit const std::string_view kTopicURIKey = vela::records::kTopicUriText;
constinit const std::string_view kErrorMsgKey = "vela.notify.errorMsg";
constinit const std::string_view kConnectJIDKey = "vela.notify.jid";
constinit const std::string_view kVelaLaunchableExecArgsKey = "AppArgs";

// NOLINTBEGIN(cppcoreguidelines-avoid-non-const-global-variables): assignable by design
constinit std::string_view kVelaNotification_App_ID = vela::records::kAppIdText;
constinit std::string_view kVelaNotification_Pref_Domain = vela::records::kAppIdText;
constinit std::string_view kVelaNotification_NotBackedUp_Pref_Domain = "com.zentrex.VelaNotification.notbackedup";
constinit std::string_view kVelaNotification_Public_NotBackedUp_Pref_Domain =
    "com.zentrex.VelaNotification.public.notbackedup";
constinit std::string_view kVelaNotification_PostWipe_Pref_Domain = "com.zentrex.VelaNotification.postwipe";
// NOLINTEND(cppcoreguidelines-avoid-non-const-global-variables)

constinit const std::string_view kWardenEnabledPrefDomain = "com.zentrex.Warden";
constinit const std::string_view kWardenEnabledPrefKey = "WardenEnabled";

constinit const std::string_view kVelaAccountMigratedNotification = "com.zentrex.VelaNotification.AccountMigrated";
constinit const std::string_view kVelaMigrateAccountNotification = "com.zentrex.VelaNotification.MigrateAccount";
constinit const std::string_view kLocusStateDidChangeNotification = "com.zentrex.VelaNotification.LocusStateDidChange";
constinit const std::string_view kLostModeChangedNotification = "com.zentrex.nimbus.locus.lostmode.enable";
constinit const std::string_view kStopLostModeAlarmNotification = "com.zentrex.nimbus.locus.lostmode.stopAlarm";

constinit const std::string_view kLostModeIsActiveKey = "vela.lostModeActive";
constinit const std::string_view kLostModeTrackingIsActiveKey = "vela.lostModeTrackingActive";
constinit const std::string_view kLostModeScreenTextKey = "vela.lockScreenText";
constinit const std::string_view kLostModeScreenOwnerNumKey = "vela.loclScreenOwnerNum";

// NOLINTBEGIN(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays): plain C strings by design
const char kWardenAuthRight[] = "com.zentrex.VelaNotification.Warden.modify";
const char kWardenRemoveAuthRight[] = "com.zentrex.VelaNotification.Warden.remove";
// NOLINTEND(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)

// Four separate bodies, not one shared function: each name must stay its own
// symbol for callers that resolve them at run time.
void* VelaNotificationAddAccount(...) { return nullptr; }
void* VelaNotificationRemoveAccount(...) { return nullptr; }
void* VelaNotificationRetrieveCurrentAccount(...) { return nullptr; }
void* VelaNotificationRetrieveAllAccounts(...) { return nullptr; }
