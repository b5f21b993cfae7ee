// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Reading D-Bus introspection documents (the published interface XML, what a
// live object reports) and holding them against the protocol's members.
namespace vela::protocol {

struct ArgumentDescription {
  std::string name;
  std::string type;
  std::string direction;  // "in" or "out"; "" when the document leaves it out
};

struct MethodDescription {
  std::string name;
  std::vector<ArgumentDescription> arguments;
  std::map<std::string, std::string, std::less<>> annotations;
};

// The methods of `interface` in an introspection document, in document
// order. nullopt when the document cannot be read or has no such interface;
// `whyNot` then says which.
std::optional<std::vector<MethodDescription>> readInterfaceMethods(std::string_view xml, std::string_view interface,
                                                                   std::string* whyNot = nullptr);

// The annotations through which the XML states each member's keys, as
// describeFields() writes them.
inline constexpr std::string_view kRequestKeysAnnotation = "com.zentrex.VelaNotification.RequestKeys";
inline constexpr std::string_view kReplyKeysAnnotation = "com.zentrex.VelaNotification.ReplyKeys";

// Whether the methods of a HandsetActions description are exactly the
// protocol's members, each a{sv} -> a{sv} with the same keys and types.
// nullopt when they are, else what differs first.
std::optional<std::string> compareWithDescription(const std::vector<MethodDescription>& methods);

}  // namespace vela::protocol
