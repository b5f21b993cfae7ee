// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <vela/VelaValue.h>

struct sd_bus_message;

namespace vela::bus {

// Property-list values on the wire:
//   string s · boolean b · integer x (read also from y n q i u t) · real d ·
//   data ay · array av · dictionary a{sv} · date (d) · set (av)
// Nil has no encoding: it is an absent dictionary key.

// Keys whose integer values a contract types as 32-bit (`i`) rather than the
// default `x`, at any depth. Values that do not fit travel as `x`.
struct WireHints {
  std::span<const std::string_view> int32Keys;
};

// Appends `dict` as a{sv}. Returns 0 or a negative errno.
int appendDictionary(sd_bus_message* message, const VelaDictionary& dict, const WireHints& hints = {});

// Appends one value as the contents of a variant (signature and value).
int appendVariant(sd_bus_message* message, const VelaValue& value, const WireHints& hints = {});

// Reads an a{sv} at the message's read position. nullopt when anything in it
// has a type with no property-list meaning, when a number does not fit, or
// when the message is malformed; `whyNot` then says what was wrong.
std::optional<VelaDictionary> readDictionary(sd_bus_message* message, std::string* whyNot = nullptr);

}  // namespace vela::bus
