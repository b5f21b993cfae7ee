// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Reading D-Bus introspection documents: the interface XML that velad is
// built with, and what a live object reports.
namespace vela::daemon {

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

// The published description of HandsetActions, as built into velad.
std::string_view handsetActionsDescription();

}  // namespace vela::daemon
