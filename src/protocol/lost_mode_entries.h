// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

// Lost mode as the preference store holds it, for the lock screen and every
// other reader: dictionaries under these keys, the first enabled one wins.
namespace vela::protocol::lost_mode {

// Written by velad, in the public not-backed-up domain.
inline constexpr std::string_view kLocusEntry = "LocusLostModeInfo";
// Written by other clients, in the same domain.
inline constexpr std::string_view kClientEntry = "ClientLostModeInfo";
// Left after a wipe, in the post-wipe domain.
inline constexpr std::string_view kWipeEntry = "LocusWipeLostModeInfo";

// Keys of each entry.
inline constexpr std::string_view kEnabledKey = "lostModeEnabled";
inline constexpr std::string_view kMessageKey = "lostModeMessage";
inline constexpr std::string_view kOwnerNumberKey = "lostModeOwnerNumber";

}  // namespace vela::protocol::lost_mode
