// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// How the wire contract describes its dictionaries: which keys a member's
// request and reply carry, which keys a record's archive holds, and the D-Bus
// type each is sent with. The encoder, the decoder, velad and the build's
// check against the interface XML all read these descriptions; nothing else
// spells a key or a type.
namespace vela::protocol {

enum class WireType : std::uint8_t {
  kString,        // s
  kInt32,         // i: a number the contract keeps to 32 bits
  kInteger,       // x
  kBoolean,       // b
  kReal,          // d
  kDate,          // (d)
  kPropertyList,  // any property-list value, in its default mapping
  kDictionary,    // a{sv} whose keys are described by a Shape
};

struct Shape;

struct Field {
  std::string_view key;
  WireType type = WireType::kPropertyList;
  // The keys inside, for kDictionary.
  const Shape* shape = nullptr;
};

using Fields = std::span<const Field>;

// A dictionary with described keys: a record's archive (with a class name,
// carried under "$class") or a plain dictionary (no class name).
struct Shape {
  std::string_view className;
  Fields fields;
};

// One member of the interface: its name and the keys of its request and of
// its reply (the daemon's "error" comes on top of every reply).
struct Member {
  std::string_view name;
  Fields request;
  Fields reply;
};

// The field described under `key`, or nullptr.
constexpr const Field* findField(Fields fields, std::string_view key) {
  for (const Field& field : fields) {
    if (field.key == key) return &field;
  }
  return nullptr;
}

// A field list as the interface XML's key annotations write it: "key:type"
// separated by spaces, the type being a D-Bus signature or a record's class
// name.
std::string describeFields(Fields fields);

}  // namespace vela::protocol
