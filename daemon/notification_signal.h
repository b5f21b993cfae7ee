// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

#include <vela/VelaValue.h>

struct sd_bus;

namespace vela::daemon {

// Emits Notification(s name, a{sv} userInfo) on `bus`, on interface `center`
// at the path made from it ("/" + center, dots as slashes). An empty
// `destination` broadcasts; otherwise only that unique name receives it.
// Returns 0 or a negative errno (-EINVAL for a center that makes no valid
// interface or path). Shared by velad and by tests that forge a sender.
[[nodiscard]] int emitNotification(sd_bus* bus, std::string_view center, std::string_view name,
                                   const VelaDictionary& userInfo, std::string_view destination = {});

}  // namespace vela::daemon
