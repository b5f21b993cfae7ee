// SPDX-License-Identifier: MIT
#include "protocol/schema.h"

namespace vela::protocol {
namespace {

std::string_view typeText(const Field& field) {
  switch (field.type) {
    case WireType::kString:
      return "s";
    case WireType::kInt32:
      return "i";
    case WireType::kInteger:
      return "x";
    case WireType::kBoolean:
      return "b";
    case WireType::kReal:
      return "d";
    case WireType::kDate:
      return "(d)";
    case WireType::kPropertyList:
      return "v";
    case WireType::kDictionary:
      // Records go by their class name; a plain dictionary by its signature.
      return field.shape != nullptr && !field.shape->className.empty() ? field.shape->className : "a{sv}";
  }
  return "v";
}

}  // namespace

std::string describeFields(Fields fields) {
  std::string text;
  for (const Field& field : fields) {
    if (!text.empty()) text += ' ';
    text += field.key;
    text += ':';
    text += typeText(field);
  }
  return text;
}

}  // namespace vela::protocol
