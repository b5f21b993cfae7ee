// SPDX-License-Identifier: MIT
#include "json_value.h"

#include <array>
#include <cstdint>
#include <type_traits>

namespace velactl {
namespace {

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encodeBase64(const VelaData& data) {
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < data.size(); i += 3) {
    const std::uint32_t chunk = (std::uint32_t{data[i]} << 16) |
                                (i + 1 < data.size() ? std::uint32_t{data[i + 1]} << 8 : 0) |
                                (i + 2 < data.size() ? std::uint32_t{data[i + 2]} : 0);
    out += kBase64[(chunk >> 18) & 63];
    out += kBase64[(chunk >> 12) & 63];
    out += i + 1 < data.size() ? kBase64[(chunk >> 6) & 63] : '=';
    out += i + 2 < data.size() ? kBase64[chunk & 63] : '=';
  }
  return out;
}

std::optional<VelaData> decodeBase64(const std::string& text) {
  VelaData out;
  std::uint32_t buffer = 0;
  int bits = 0;
  for (const char c : text) {
    if (c == '=') break;
    const auto position = kBase64.find(c);
    if (position == std::string_view::npos) return std::nullopt;
    buffer = (buffer << 6) | static_cast<std::uint32_t>(position);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>((buffer >> bits) & 0xFF));
    }
  }
  return out;
}

}  // namespace

nlohmann::json toJson(const VelaValue& value) {
  return std::visit(
      [](const auto& v) -> nlohmann::json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, VelaDate>) {
          return {{"$date", v.secondsSince1970}};
        } else if constexpr (std::is_same_v<T, VelaData>) {
          return {{"$data", encodeBase64(v)}};
        } else if constexpr (std::is_same_v<T, VelaArray>) {
          nlohmann::json array = nlohmann::json::array();
          for (const auto& item : v) array.push_back(toJson(item));
          return array;
        } else if constexpr (std::is_same_v<T, VelaSet>) {
          nlohmann::json members = nlohmann::json::array();
          for (const auto& item : v.members) members.push_back(toJson(item));
          return {{"$set", members}};
        } else if constexpr (std::is_same_v<T, VelaDictionary>) {
          nlohmann::json object = nlohmann::json::object();
          for (const auto& [key, item] : v) object[key] = toJson(item);
          return object;
        } else {
          return v;
        }
      },
      value.storage());
}

nlohmann::json toJson(const std::optional<VelaValue>& value) { return value ? toJson(*value) : nlohmann::json(); }

nlohmann::json toJson(const std::optional<std::string>& value) {
  return value ? nlohmann::json(*value) : nlohmann::json();
}

std::optional<VelaValue> fromJsonText(const std::string& text, std::string* whyNot) {
  const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded()) {
    *whyNot = "not JSON: " + text;
    return std::nullopt;
  }
  return fromJson(json, whyNot);
}

namespace {

std::optional<VelaValue> refuse(std::string* whyNot, const std::string& why) {
  if (whyNot != nullptr) *whyNot = why;
  return std::nullopt;
}

std::optional<VelaValue> fromJsonArray(const nlohmann::json& json, std::string* whyNot) {
  VelaArray items;
  for (const auto& item : json) {
    auto value = fromJson(item, whyNot);
    if (!value) return std::nullopt;
    items.push_back(std::move(*value));
  }
  return VelaValue(std::move(items));
}

// An object of one "$date", "$data" or "$set" member stands for that kind of
// value; any other object is a dictionary.
std::optional<VelaValue> fromJsonObject(const nlohmann::json& json, std::string* whyNot) {
  if (json.size() == 1 && json.contains("$date") && json["$date"].is_number()) {
    return VelaValue(VelaDate{json["$date"].get<double>()});
  }
  if (json.size() == 1 && json.contains("$data") && json["$data"].is_string()) {
    auto data = decodeBase64(json["$data"].get<std::string>());
    if (!data) return refuse(whyNot, "\"$data\" is not base64");
    return VelaValue(std::move(*data));
  }
  if (json.size() == 1 && json.contains("$set") && json["$set"].is_array()) {
    auto members = fromJsonArray(json["$set"], whyNot);
    if (!members) return std::nullopt;
    return VelaValue(VelaSet{*members->asArray()});
  }
  VelaDictionary dict;
  for (const auto& [key, item] : json.items()) {
    auto value = fromJson(item, whyNot);
    if (!value) return std::nullopt;
    dict.insert_or_assign(key, std::move(*value));
  }
  return VelaValue(std::move(dict));
}

}  // namespace

std::optional<VelaValue> fromJson(const nlohmann::json& json, std::string* whyNot) {
  switch (json.type()) {
    case nlohmann::json::value_t::string:
      return VelaValue(json.get<std::string>());
    case nlohmann::json::value_t::boolean:
      return VelaValue(json.get<bool>());
    case nlohmann::json::value_t::number_integer:
      return VelaValue(json.get<std::int64_t>());
    case nlohmann::json::value_t::number_unsigned: {
      const auto u = json.get<std::uint64_t>();
      if (u > static_cast<std::uint64_t>(INT64_MAX)) return refuse(whyNot, "integer out of range");
      return VelaValue(static_cast<std::int64_t>(u));
    }
    case nlohmann::json::value_t::number_float:
      return VelaValue(json.get<double>());
    case nlohmann::json::value_t::array:
      return fromJsonArray(json, whyNot);
    case nlohmann::json::value_t::object:
      return fromJsonObject(json, whyNot);
    default:
      return refuse(whyNot, "null and binary values have no property-list meaning");
  }
}

nlohmann::json errorToJson(const std::optional<VelaError>& error) {
  if (!error) return nullptr;
  const auto reason = error->failureReason();
  return {{"domain", error->domain()},
          {"code", error->code()},
          {"failureReason", reason ? nlohmann::json(*reason) : nlohmann::json()}};
}

}  // namespace velactl
