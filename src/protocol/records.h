// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <string_view>

#include <vela/VelaGeoLocation.h>
#include <vela/VelaKeyedArchive.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>

#include "protocol/schema.h"

// The archives of the three records that cross the bus: each is a dictionary
// holding "$class" and these keys, a nil field being an absent key.
namespace vela::protocol {

inline constexpr std::string_view kClassKey = kVelaArchiveClassKey;

namespace kith {
inline constexpr std::string_view kDsidKey = "dsid";
inline constexpr std::string_view kUsernameKey = "username";
inline constexpr std::string_view kAppAuthTokenKey = "appAuthToken";
inline constexpr std::string_view kAppAuthTokenStatusKey = "appAuthTokenStatus";
inline constexpr std::string_view kInternalAuthTokenKey = "internalAuthToken";
inline constexpr std::string_view kAdditionalInfoKey = "additionalInfo";
inline constexpr std::string_view kVelaServerHostKey = "velaServerHost";
inline constexpr std::string_view kVelaServerProtocolSchemeKey = "velaServerProtocolScheme";
inline constexpr std::string_view kVelaRelayEnvironmentKey = "velaRelayEnvironment";

// In the order the archive is read and written.
inline constexpr std::array kFields = {
    Field{kDsidKey, WireType::kString},
    Field{kUsernameKey, WireType::kString},
    Field{kAppAuthTokenKey, WireType::kString},
    Field{kAppAuthTokenStatusKey, WireType::kInt32},
    Field{kInternalAuthTokenKey, WireType::kString},
    Field{kAdditionalInfoKey, WireType::kPropertyList},
    Field{kVelaServerHostKey, WireType::kString},
    Field{kVelaServerProtocolSchemeKey, WireType::kString},
    Field{kVelaRelayEnvironmentKey, WireType::kString},
};
}  // namespace kith

namespace lost_mode_record {
// Also the flag's key in the lost-mode entries of the preference store.
inline constexpr std::string_view kLostModeEnabledKey = "lostModeEnabled";
inline constexpr std::string_view kMessageKey = "message";
inline constexpr std::string_view kPhoneNumberKey = "phoneNumber";

inline constexpr std::array kFields = {
    Field{kLostModeEnabledKey, WireType::kBoolean},
    Field{kMessageKey, WireType::kString},
    Field{kPhoneNumberKey, WireType::kString},
};
}  // namespace lost_mode_record

namespace geo {
inline constexpr std::string_view kLatitudeKey = "latitude";
inline constexpr std::string_view kLongitudeKey = "longitude";
inline constexpr std::string_view kAltitudeKey = "altitude";
inline constexpr std::string_view kHorizontalAccuracyKey = "horizontalAccuracy";
inline constexpr std::string_view kVerticalAccuracyKey = "verticalAccuracy";
inline constexpr std::string_view kCourseKey = "course";
inline constexpr std::string_view kSpeedKey = "speed";
inline constexpr std::string_view kTimestampKey = "timestamp";

inline constexpr std::array kFields = {
    Field{kLatitudeKey, WireType::kReal},
    Field{kLongitudeKey, WireType::kReal},
    Field{kAltitudeKey, WireType::kReal},
    Field{kHorizontalAccuracyKey, WireType::kReal},
    Field{kVerticalAccuracyKey, WireType::kReal},
    Field{kCourseKey, WireType::kReal},
    Field{kSpeedKey, WireType::kReal},
    Field{kTimestampKey, WireType::kDate},
};
}  // namespace geo

// The class names are the records' own (kClassName of each public class).
inline constexpr Shape kKithAccountRecord{VelaKithAccountInfo::kClassName, kith::kFields};
inline constexpr Shape kLostModeRecord{VelaLostModeInfo::kClassName, lost_mode_record::kFields};
inline constexpr Shape kGeoLocationRecord{VelaGeoLocation::kClassName, geo::kFields};

}  // namespace vela::protocol
