// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <string_view>

#include <vela/VelaValue.h>

namespace velactl {

// One notification as one line of output, without the line break.
//
// JSON: {"center": ..., "name": ..., "userInfo": {...}}, values as toJson
// makes them. Readable: the name, then key=value for each user-info entry in
// key order, each value as JSON ("text", 1, true, {...}). A name or key that
// could be misread there (empty, or holding a space, '=', '"' or a control
// character) is printed as a JSON string, so that every line splits back
// into its parts.
std::string notificationLine(std::string_view center, std::string_view name, const VelaDictionary& userInfo, bool json);

}  // namespace velactl
