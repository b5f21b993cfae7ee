// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <span>
#include <string_view>

#include "protocol/records.h"
#include "protocol/schema.h"

// The HandsetActions interface: every member takes one a{sv} "request" and
// answers one a{sv} "reply". The interface XML publishes the same list; the
// build refuses to go on when the two disagree.
namespace vela::protocol {

// Argument and reply keys.
namespace key {
inline constexpr std::string_view kInfo = "info";
inline constexpr std::string_view kState = "state";
inline constexpr std::string_view kDeviceId = "deviceId";
inline constexpr std::string_view kAccount = "account";
inline constexpr std::string_view kUsername = "username";
inline constexpr std::string_view kPersonID = "personID";
inline constexpr std::string_view kContext = "context";
inline constexpr std::string_view kToken = "token";
inline constexpr std::string_view kRegionIdentifier = "regionIdentifier";
inline constexpr std::string_view kLocation = "location";
inline constexpr std::string_view kTopic = "topic";
inline constexpr std::string_view kArgument = "argument";
}  // namespace key

namespace fields {
inline constexpr std::array<Field, 0> kNone{};
inline constexpr std::array kLostModeInfo = {Field{key::kInfo, WireType::kDictionary, &kLostModeRecord}};
inline constexpr std::array kState = {Field{key::kState, WireType::kInt32}};
inline constexpr std::array kDeviceId = {Field{key::kDeviceId, WireType::kString}};
inline constexpr std::array kAccountName = {Field{key::kAccount, WireType::kString}};
inline constexpr std::array kAccountIdentity = {Field{key::kUsername, WireType::kString},
                                                Field{key::kPersonID, WireType::kString}};
inline constexpr std::array kContext = {Field{key::kContext, WireType::kInt32}};
inline constexpr std::array kTokenAndContext = {Field{key::kToken, WireType::kString},
                                                Field{key::kContext, WireType::kInt32}};
inline constexpr std::array kRegionEvent = {Field{key::kRegionIdentifier, WireType::kString},
                                            Field{key::kLocation, WireType::kDictionary, &kGeoLocationRecord}};
inline constexpr std::array kKithAccount = {Field{key::kAccount, WireType::kDictionary, &kKithAccountRecord}};
inline constexpr std::array kUsername = {Field{key::kUsername, WireType::kString}};
inline constexpr std::array kTopic = {Field{key::kTopic, WireType::kString}};
inline constexpr std::array kArgument = {Field{key::kArgument, WireType::kString}};
}  // namespace fields

namespace member {
inline constexpr Member kEnableLostModeWithInfo{"EnableLostModeWithInfo", fields::kLostModeInfo, fields::kNone};
inline constexpr Member kDisableLostMode{"DisableLostMode", fields::kNone, fields::kNone};
inline constexpr Member kGetLocusState{"GetLocusState", fields::kNone, fields::kState};
inline constexpr Member kGetKithDeviceId{"GetKithDeviceId", fields::kNone, fields::kDeviceId};
inline constexpr Member kGetLocusDeviceId{"GetLocusDeviceId", fields::kNone, fields::kDeviceId};
inline constexpr Member kGetStoreAccount{"GetStoreAccount", fields::kNone, fields::kAccountName};
inline constexpr Member kGetLocusAccount{"GetLocusAccount", fields::kNone, fields::kAccountIdentity};
inline constexpr Member kGetNimbusAccount{"GetNimbusAccount", fields::kNone, fields::kAccountIdentity};
inline constexpr Member kEnableLocusInContext{"EnableLocusInContext", fields::kContext, fields::kNone};
inline constexpr Member kDisableLocusUsingToken{"DisableLocusUsingToken", fields::kTokenAndContext, fields::kNone};
inline constexpr Member kDidEnterKithRegion{"DidEnterKithRegion", fields::kRegionEvent, fields::kNone};
inline constexpr Member kDidExitKithRegion{"DidExitKithRegion", fields::kRegionEvent, fields::kNone};
inline constexpr Member kAddKithAccount{"AddKithAccount", fields::kKithAccount, fields::kNone};
inline constexpr Member kRemoveKithAccountWithUsername{"RemoveKithAccountWithUsername", fields::kUsername,
                                                       fields::kNone};
inline constexpr Member kRetrieveKithAccount{"RetrieveKithAccount", fields::kNone, fields::kKithAccount};
inline constexpr Member kVetEmailAccount{"VetEmailAccount", fields::kAccountName, fields::kNone};
inline constexpr Member kCancelEmailVet{"CancelEmailVet", fields::kNone, fields::kNone};
inline constexpr Member kStartListeningOnTopic{"StartListeningOnTopic", fields::kTopic, fields::kNone};
inline constexpr Member kStopListeningOnTopic{"StopListeningOnTopic", fields::kTopic, fields::kNone};
inline constexpr Member kDumpDebugInfo{"DumpDebugInfo", fields::kArgument, fields::kNone};
}  // namespace member

// Every member, in the interface's declared order.
inline constexpr std::array<const Member*, 20> kHandsetActionsMembers = {
    &member::kEnableLostModeWithInfo, &member::kDisableLostMode,
    &member::kGetLocusState,          &member::kGetKithDeviceId,
    &member::kGetLocusDeviceId,       &member::kGetStoreAccount,
    &member::kGetLocusAccount,        &member::kGetNimbusAccount,
    &member::kEnableLocusInContext,   &member::kDisableLocusUsingToken,
    &member::kDidEnterKithRegion,     &member::kDidExitKithRegion,
    &member::kAddKithAccount,         &member::kRemoveKithAccountWithUsername,
    &member::kRetrieveKithAccount,    &member::kVetEmailAccount,
    &member::kCancelEmailVet,         &member::kStartListeningOnTopic,
    &member::kStopListeningOnTopic,   &member::kDumpDebugInfo,
};

// The member named `name`, or nullptr.
constexpr const Member* findMember(std::string_view name) {
  for (const Member* member : kHandsetActionsMembers) {
    if (member->name == name) return member;
  }
  return nullptr;
}

}  // namespace vela::protocol
