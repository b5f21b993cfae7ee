// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

namespace vela::records {

// E-mail vetting is the one flow in which the daemon speaks first: it posts
// these notifications on this center, and velad and the session must agree on
// every string here.
inline constexpr std::string_view kVetCenterName = "com.zentrex.VelaNotification.clientnotify";
inline constexpr std::string_view kVetResultsFoundNotification = "vet.results.found";
inline constexpr std::string_view kVetFinishedNotification = "vet.finished";

// User info of kVetResultsFoundNotification: the results, passed on unread.
inline constexpr std::string_view kVetResultsKey = "Results";
// User info of kVetFinishedNotification: an optional dictionary describing the
// error that ended the vetting, with an optional domain and integer code.
inline constexpr std::string_view kVetErrorKey = "Error";
inline constexpr std::string_view kVetErrorDomainKey = "domain";
inline constexpr std::string_view kVetErrorCodeKey = "code";

// Operation labels of the vetting requests.
inline constexpr std::string_view kVetRequestLabel = "vetEmailAccount";
inline constexpr std::string_view kVetCancelLabel = "cancelEmailVet";

}  // namespace vela::records
