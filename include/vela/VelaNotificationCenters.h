// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

// Where the daemon speaks first, and what its state notifications carry.
// Observe them with VelaNotifySession::addObserver; the notification names
// are the published ones in VelaConstants.h.

// The center the daemon posts on: the results of an e-mail vetting (to the
// requester alone) and its own state changes (to everyone).
inline constexpr std::string_view kVelaClientNotifyCenter = "com.zentrex.VelaNotification.clientnotify";

// kLocusStateDidChangeNotification: "state", the new locating state, an
// integer as locusStateWithCompletion reports it (1 and 2 are settled).
// Posted on every change, and once when the daemon starts.
inline constexpr std::string_view kVelaLocusStateKey = "state";

// kLostModeChangedNotification: "enabled", whether lost mode is on now, a
// boolean. Posted on every switch, and once when the daemon starts.
inline constexpr std::string_view kVelaLostModeEnabledKey = "enabled";
