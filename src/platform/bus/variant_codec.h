// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <vela/VelaValue.h>

#include "protocol/schema.h"

struct sd_bus_message;

namespace vela::bus {

// Property-list values on the wire:
//   string s · boolean b · integer x (read also from y n q i u t) · real d ·
//   data ay · array av · dictionary a{sv} · date (d) · set (av)
// Nil has no encoding: it is an absent dictionary key.

// What a dictionary's keys are described by: the fields of a member's request
// or reply, and the daemon's error beside a reply's. Keys in none of them are
// undescribed.
using FieldSets = std::span<const protocol::Fields>;

// Appends `dict` as a{sv}. A described key goes out as its type says (a
// 32-bit number as `i` when it fits, a record's fields typed by its class,
// at any depth); every other value in the default mapping above. Returns 0
// or a negative errno.
[[nodiscard]] int appendDictionary(sd_bus_message* message, const VelaDictionary& dict, FieldSets described = {});

// Appends one value as the contents of a variant (signature and value), in
// the default mapping.
[[nodiscard]] int appendVariant(sd_bus_message* message, const VelaValue& value);

// Reads an a{sv} at the message's read position, every key of it. nullopt
// when anything in it has a type with no property-list meaning, when a
// number does not fit, or when the message is malformed; `whyNot` then says
// what was wrong.
std::optional<VelaDictionary> readDictionary(sd_bus_message* message, std::string* whyNot = nullptr);

// Reads an a{sv} keeping only the described keys, read as strictly as
// readDictionary() reads everything (inside a record, only its class's
// keys). Other keys are skipped whatever their type, so a sender that adds
// keys, even of types with no property-list meaning, still reaches readers
// that do not know them.
std::optional<VelaDictionary> readDescribedKeys(sd_bus_message* message, FieldSets described,
                                                std::string* whyNot = nullptr);

// Takes the described keys of a dictionary as they are read, for a reader
// that keeps them in types of its own rather than in a VelaDictionary.
class DescribedKeySink {
 public:
  // A string carried as the string its field describes, bare; `text`
  // lasts only for the call.
  virtual void take(const protocol::Field& field, const char* text) = 0;
  // Any other value, as readDescribedKeys() reads it.
  virtual void take(const protocol::Field& field, const VelaValue& value) = 0;

  DescribedKeySink() = default;
  virtual ~DescribedKeySink() = default;
  DescribedKeySink(const DescribedKeySink&) = delete;
  DescribedKeySink& operator=(const DescribedKeySink&) = delete;
  DescribedKeySink(DescribedKeySink&&) = delete;
  DescribedKeySink& operator=(DescribedKeySink&&) = delete;
};

// Reads an a{sv} as readDescribedKeys() does, handing each described key to
// `sink` as it comes. False when the message is refused (`sink` may then
// have been given some keys); `whyNot` then says what was wrong.
bool readDescribedKeys(sd_bus_message* message, FieldSets described, DescribedKeySink& sink,
                       std::string* whyNot = nullptr);

}  // namespace vela::bus
