// SPDX-License-Identifier: MIT
#include "notification_line.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "json_value.h"

namespace velactl {
namespace {

// Bytes the bus let through but JSON cannot carry are replaced rather than
// thrown over: a notification is printed whatever it holds.
std::string dumped(const nlohmann::json& json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string word(std::string_view text) {
  const bool plain = !text.empty() && std::none_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '=' || c == '"' || c == '\x7f';
  });
  return plain ? std::string(text) : dumped(nlohmann::json(text));
}

}  // namespace

std::string notificationLine(std::string_view center, std::string_view name, const VelaDictionary& userInfo,
                             bool json) {
  if (json) {
    return dumped({{"center", center}, {"name", name}, {"userInfo", toJson(VelaValue(userInfo))}});
  }
  std::string line = word(name);
  // VelaDictionary is ordered by key.
  for (const auto& [key, value] : userInfo) line += ' ' + word(key) + '=' + dumped(toJson(value));
  return line;
}

}  // namespace velactl
