// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include <vela/VelaNotificationCenters.h>

// Where the daemon lives on the bus, and the notification centers it posts on.
namespace vela::protocol {

// The service's well-known name; also the library's error domain.
inline constexpr std::string_view kServiceName = "com.zentrex.VelaNotification";
inline constexpr std::string_view kObjectPath = "/com/zentrex/VelaNotification";
inline constexpr std::string_view kHandsetActionsInterface = "com.zentrex.VelaNotification.HandsetActions";
// Served by velad only when started with --testing.
inline constexpr std::string_view kTestingInterface = "com.zentrex.VelaNotification.Testing";

// A notification center named N is the interface N; its notifications are
// the signal Notification(s name, a{sv} userInfo) on the path made from N.
inline constexpr std::string_view kNotificationSignal = "Notification";

inline std::string notificationCenterPath(std::string_view center) {
  std::string path(1, '/');
  path += center;
  std::replace(path.begin(), path.end(), '.', '/');
  return path;
}

// E-mail vetting is the one flow in which the daemon speaks first: it posts
// these notifications to the requester alone, on this center. velad also
// announces its own state changes there, the one center clients listen to.
inline constexpr std::string_view kClientNotifyCenter = kVelaClientNotifyCenter;
inline constexpr std::string_view kVetResultsFoundNotification = kVelaVetResultsFoundNotification;
inline constexpr std::string_view kVetFinishedNotification = kVelaVetFinishedNotification;

// User info of the state changes velad announces (published with the center).
inline constexpr std::string_view kLocusStateChangeKey = kVelaLocusStateKey;
inline constexpr std::string_view kLostModeEnabledKey = kVelaLostModeEnabledKey;

// User info of kVetResultsFoundNotification: the results, passed on unread.
inline constexpr std::string_view kVetResultsKey = "Results";
// User info of kVetFinishedNotification: an optional dictionary describing the
// error that ended the vetting, with an optional domain and integer code.
inline constexpr std::string_view kVetErrorKey = "Error";
inline constexpr std::string_view kVetErrorDomainKey = "domain";
inline constexpr std::string_view kVetErrorCodeKey = "code";

}  // namespace vela::protocol
