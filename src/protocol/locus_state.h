// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

// The device-locating state as the daemon reports it. Clients know only that
// the two settled states are settled; any other number means a switch is
// under way.
namespace vela::protocol {

inline constexpr std::int32_t kLocusStateOff = 1;
inline constexpr std::int32_t kLocusStateOn = 2;
// What velad reports while a switch settles.
inline constexpr std::int32_t kLocusStateSwitching = 3;
// What a client's completion sees when the request could not be carried:
// not a settled state, so a caller who looks only at the number does not act on it.
inline constexpr std::int32_t kLocusStateUnknown = 4;

constexpr bool isSettledLocusState(std::int32_t state) { return state == kLocusStateOff || state == kLocusStateOn; }

}  // namespace vela::protocol
