// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

// Where the daemon speaks first, and what its state notifications carry.
// Observe them with VelaNotifySession::addObserver; the notification names
// are the published ones in VelaConstants.h.

// The center the daemon posts on: the results of an e-mail vetting (to the
// requester alone) and its own state changes (to everyone).
inline constexpr std::string_view kVelaClientNotifyCenter = "com.zentrex.VelaNotification.clientnotify";

// The two notifications of an e-mail vetting, sent to the requester alone:
// its results ("Results", passed on as the vetting service gave them), then
// its end ("Error", a dictionary with "domain" and "code", when it failed).
// The session's delegate receives them; a host may observe them as well.
inline constexpr std::string_view kVelaVetResultsFoundNotification = "vet.results.found";
inline constexpr std::string_view kVelaVetFinishedNotification = "vet.finished";

// kLocusStateDidChangeNotification: "state", the new locating state, an
// integer as locusStateWithCompletion reports it (1 and 2 are settled).
// Posted on every change, and once when the daemon starts.
inline constexpr std::string_view kVelaLocusStateKey = "state";

// kLostModeChangedNotification: "enabled", whether lost mode is on now, a
// boolean. Posted on every switch, and once when the daemon starts.
inline constexpr std::string_view kVelaLostModeEnabledKey = "enabled";
