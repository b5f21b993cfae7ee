// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

#include <vela/VelaExport.h>

// Names shared by the library, the daemon and other clients. A process built
// separately finds the others only through these exact strings, so every value
// is part of the protocol; several odd spellings below are deliberate and must
// stay as they are.
//
// Constant names are initialised at compile time: they are usable from any
// static initialiser and from any thread. The five application identifier and
// preference domain names are assignable; change them, if at all, before any
// other thread reads them.

// Keys of an account dictionary.
extern VELA_EXPORT const std::string_view kVelaAccountTokensDictKey;
extern VELA_EXPORT const std::string_view kVelaAccountDictVersionKey;
extern VELA_EXPORT const std::string_view kVelaAccountNameKey;
extern VELA_EXPORT const std::string_view kVelaAccountTokenKey;
extern VELA_EXPORT const std::string_view kVelaAccountUserInfoKey;
extern VELA_EXPORT const std::string_view kVelaAccountPersonIDKey;
extern VELA_EXPORT const std::string_view kVelaAccountPasswordKey;
extern VELA_EXPORT const std::string_view kVelaAccountUserIDKey;  // "userid", all lower case
extern VELA_EXPORT const std::string_view kVelaAccountEnabledDataclassesKey;
extern VELA_EXPORT const std::string_view kVelaAccountDataclassPropertiesKey;
// Keys inside the per-service dictionary stored under kVelaAccountDataclassPropertiesKey.
extern VELA_EXPORT const std::string_view kVelaAccountDataclassPropAuthMechanismKey;
extern VELA_EXPORT const std::string_view kVelaAccountDataclassPropHostnameKey;
extern VELA_EXPORT const std::string_view kVelaAccountDataclassPropRelayEnvKey;
extern VELA_EXPORT const std::string_view kVelaAccountDataclassPropUriSchemeKey;

// Keys of a dictionary describing one stored authentication token.
extern VELA_EXPORT const std::string_view kVelaTokenTypeKey;
extern VELA_EXPORT const std::string_view kVelaTokenInternalKey;
extern VELA_EXPORT const std::string_view kVelaTokenValueKey;
extern VELA_EXPORT const std::string_view kVelaTokenStatus;  // a key, despite the missing suffix
// Token types: when a stored token may be read.
extern VELA_EXPORT const std::string_view kVelaTokenTypeAvailableWhenUnlocked;
extern VELA_EXPORT const std::string_view kVelaTokenTypeAvailableAfterFirstUnlock;
extern VELA_EXPORT const std::string_view kVelaTokenTypeAvailableAlways;
// Token statuses.
extern VELA_EXPORT const std::string_view kVelaTokenStatusOK;
extern VELA_EXPORT const std::string_view kVelaTokenStatusInternal;
extern VELA_EXPORT const std::string_view kVelaTokenStatusNotAccessible;
extern VELA_EXPORT const std::string_view kVelaTokenStatusNotFound;
extern VELA_EXPORT const std::string_view kVelaTokenStatusUnknownError;  // "unknownAccessError"

// Keys of push-message and launch dictionaries. The two topic keys are one
// string under two names.
extern VELA_EXPORT const std::string_view kVelaMessageTopicURIKey;
extern VELA_EXPORT const std::string_view kTopicURIKey;
extern VELA_EXPORT const std::string_view kErrorMsgKey;
extern VELA_EXPORT const std::string_view kConnectJIDKey;
extern VELA_EXPORT const std::string_view kVelaLaunchableExecArgsKey;

// Application identifier and preference domains. The identifier and the main
// domain are one string under two names. Unlike every other name here, these
// five are assignable variables, for hosts that point them elsewhere.
// NOLINTBEGIN(cppcoreguidelines-avoid-non-const-global-variables)
extern VELA_EXPORT std::string_view kVelaNotification_App_ID;
extern VELA_EXPORT std::string_view kVelaNotification_Pref_Domain;
extern VELA_EXPORT std::string_view kVelaNotification_NotBackedUp_Pref_Domain;
extern VELA_EXPORT std::string_view kVelaNotification_Public_NotBackedUp_Pref_Domain;
extern VELA_EXPORT std::string_view kVelaNotification_PostWipe_Pref_Domain;
// NOLINTEND(cppcoreguidelines-avoid-non-const-global-variables)

// The computer-locating setting: its preference domain and key.
extern VELA_EXPORT const std::string_view kWardenEnabledPrefDomain;
extern VELA_EXPORT const std::string_view kWardenEnabledPrefKey;

// Notification names, posted and observed by the daemon and other clients.
extern VELA_EXPORT const std::string_view kVelaAccountMigratedNotification;
extern VELA_EXPORT const std::string_view kVelaMigrateAccountNotification;
extern VELA_EXPORT const std::string_view kLocusStateDidChangeNotification;
extern VELA_EXPORT const std::string_view kLostModeChangedNotification;  // value ends in ".enable"
extern VELA_EXPORT const std::string_view kStopLostModeAlarmNotification;

// Keys of the lost-mode parameter dictionary.
extern VELA_EXPORT const std::string_view kLostModeIsActiveKey;
extern VELA_EXPORT const std::string_view kLostModeTrackingIsActiveKey;
extern VELA_EXPORT const std::string_view kLostModeScreenTextKey;
extern VELA_EXPORT const std::string_view kLostModeScreenOwnerNumKey;  // "loclScreen": readers look it up so spelled

// Authorization rights guarding changes to the computer-locating setting;
// NUL-terminated character arrays for the C interfaces that check rights.
// NOLINTBEGIN(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)
extern VELA_EXPORT const char kWardenAuthRight[];
extern VELA_EXPORT const char kWardenRemoveAuthRight[];
// NOLINTEND(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)

// Account entry points kept so that existing callers link. Each ignores its
// arguments, touches nothing (no request, no change to
// velaLastOperationResult) and returns nullptr; account work goes through
// VelaNotifySession. Thread: any.
extern "C" {
VELA_EXPORT void* VelaNotificationAddAccount(...);
VELA_EXPORT void* VelaNotificationRemoveAccount(...);
VELA_EXPORT void* VelaNotificationRetrieveCurrentAccount(...);
VELA_EXPORT void* VelaNotificationRetrieveAllAccounts(...);
}
