// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <string_view>

// Wire names of the HandsetActions interface: the members and the keys of
// their a{sv} arguments and replies. The interface XML is the published form;
// a test holds the two together.
namespace vela::session::wire {

namespace member {
inline constexpr std::string_view kEnableLostModeWithInfo = "EnableLostModeWithInfo";
inline constexpr std::string_view kDisableLostMode = "DisableLostMode";
inline constexpr std::string_view kGetLocusState = "GetLocusState";
inline constexpr std::string_view kGetKithDeviceId = "GetKithDeviceId";
inline constexpr std::string_view kGetLocusDeviceId = "GetLocusDeviceId";
inline constexpr std::string_view kGetStoreAccount = "GetStoreAccount";
inline constexpr std::string_view kGetLocusAccount = "GetLocusAccount";
inline constexpr std::string_view kGetNimbusAccount = "GetNimbusAccount";
inline constexpr std::string_view kEnableLocusInContext = "EnableLocusInContext";
inline constexpr std::string_view kDisableLocusUsingToken = "DisableLocusUsingToken";
inline constexpr std::string_view kDidEnterKithRegion = "DidEnterKithRegion";
inline constexpr std::string_view kDidExitKithRegion = "DidExitKithRegion";
inline constexpr std::string_view kAddKithAccount = "AddKithAccount";
inline constexpr std::string_view kRemoveKithAccountWithUsername = "RemoveKithAccountWithUsername";
inline constexpr std::string_view kRetrieveKithAccount = "RetrieveKithAccount";
inline constexpr std::string_view kVetEmailAccount = "VetEmailAccount";
inline constexpr std::string_view kCancelEmailVet = "CancelEmailVet";
inline constexpr std::string_view kStartListeningOnTopic = "StartListeningOnTopic";
inline constexpr std::string_view kStopListeningOnTopic = "StopListeningOnTopic";
inline constexpr std::string_view kDumpDebugInfo = "DumpDebugInfo";
}  // namespace member

// Every member, in the interface's declared order.
inline constexpr std::array kAllMembers = {
    member::kEnableLostModeWithInfo, member::kDisableLostMode,
    member::kGetLocusState,          member::kGetKithDeviceId,
    member::kGetLocusDeviceId,       member::kGetStoreAccount,
    member::kGetLocusAccount,        member::kGetNimbusAccount,
    member::kEnableLocusInContext,   member::kDisableLocusUsingToken,
    member::kDidEnterKithRegion,     member::kDidExitKithRegion,
    member::kAddKithAccount,         member::kRemoveKithAccountWithUsername,
    member::kRetrieveKithAccount,    member::kVetEmailAccount,
    member::kCancelEmailVet,         member::kStartListeningOnTopic,
    member::kStopListeningOnTopic,   member::kDumpDebugInfo,
};

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

// The daemon's own error, inside a reply.
inline constexpr std::string_view kError = "error";
inline constexpr std::string_view kErrorDomain = "domain";
inline constexpr std::string_view kErrorCode = "code";
inline constexpr std::string_view kErrorUserInfo = "userInfo";
}  // namespace key

// Keys the contract types as 32-bit integers, in requests, replies and records.
inline constexpr std::array<std::string_view, 3> kInt32Keys = {key::kContext, key::kState, "appAuthTokenStatus"};

}  // namespace vela::session::wire
