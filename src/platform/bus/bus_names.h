// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace vela::bus {

// Where the daemon lives on the bus. The service name is also the library's
// error domain.
inline constexpr std::string_view kServiceName = "com.zentrex.VelaNotification";
inline constexpr std::string_view kObjectPath = "/com/zentrex/VelaNotification";
inline constexpr std::string_view kHandsetActionsInterface = "com.zentrex.VelaNotification.HandsetActions";
// Served by velad only when started with --testing.
inline constexpr std::string_view kTestingInterface = "com.zentrex.VelaNotification.Testing";

// The privileged option of a named connection: the system-wide service on the
// system bus instead of one in the user's session bus.
inline constexpr unsigned kPrivilegedOption = 0x1000;

// A notification center named N is the interface N; its notifications are
// the signal Notification(s name, a{sv} userInfo) on the path made from N.
inline constexpr std::string_view kNotificationSignal = "Notification";

inline std::string notificationCenterPath(std::string_view center) {
  std::string path(1, '/');
  path += center;
  std::replace(path.begin(), path.end(), '.', '/');
  return path;
}

enum class BusKind { kSystem, kSession };

}  // namespace vela::bus
