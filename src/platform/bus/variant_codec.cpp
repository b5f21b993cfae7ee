// SPDX-License-Identifier: MIT
#include "platform/bus/variant_codec.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>

#include <systemd/sd-bus.h>

#include "protocol/int32.h"
#include "protocol/records.h"

namespace vela::bus {
namespace {

// D-Bus itself caps nesting at 64 containers; we stop a little earlier so a
// hostile message can never take the reader deep into the stack.
constexpr int kMaxDepth = 48;

// Signature of the variant that carries a value of each type.
const char* variantSignature(const VelaValue& value) {
  switch (value.type()) {
    case VelaValue::Type::kString:
      return "s";
    case VelaValue::Type::kInteger:
      return "x";
    case VelaValue::Type::kReal:
      return "d";
    case VelaValue::Type::kBoolean:
      return "b";
    case VelaValue::Type::kDate:
      return "(d)";
    case VelaValue::Type::kData:
      return "ay";
    case VelaValue::Type::kArray:
      return "av";
    case VelaValue::Type::kDictionary:
      return "a{sv}";
    case VelaValue::Type::kSet:
      return "(av)";
  }
  return "";
}

// The field that describes `key`, in the first set that has it.
[[gnu::hot]] const protocol::Field* describedField(FieldSets described, std::string_view key) {
  for (const protocol::Fields fields : described) {
    if (const protocol::Field* field = protocol::findField(fields, key)) return field;
  }
  return nullptr;
}

int appendInt32Variant(sd_bus_message* m, std::int32_t value) {
  int r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, "i");
  if (r >= 0) r = sd_bus_message_append_basic(m, SD_BUS_TYPE_INT32, &value);
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendVariantArray(sd_bus_message* m, const VelaArray& items) {
  int r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "v");
  for (const VelaValue& item : items) {
    if (r < 0) return r;
    r = appendVariant(m, item);
  }
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendString(sd_bus_message* m, const std::string& text) {
  // sd-bus refuses invalid UTF-8; an embedded NUL would silently cut the
  // string, so refuse that here.
  if (text.find('\0') != std::string::npos) return -EINVAL;
  return sd_bus_message_append_basic(m, SD_BUS_TYPE_STRING, text.c_str());
}

// A date travels as the struct (d), which no plain real can be mistaken for.
int appendDate(sd_bus_message* m, VelaDate date) {
  int r = sd_bus_message_open_container(m, SD_BUS_TYPE_STRUCT, "d");
  if (r >= 0) r = sd_bus_message_append_basic(m, SD_BUS_TYPE_DOUBLE, &date.secondsSince1970);
  return r < 0 ? r : sd_bus_message_close_container(m);
}

// A set travels as the struct (av), which no plain array can be mistaken for.
int appendSet(sd_bus_message* m, const VelaSet& set) {
  int r = sd_bus_message_open_container(m, SD_BUS_TYPE_STRUCT, "av");
  if (r >= 0) r = appendVariantArray(m, set.members);
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendContents(sd_bus_message* m, const VelaValue& value) {
  return std::visit(
      [m](const auto& v) -> int {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          return appendString(m, v);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          return sd_bus_message_append_basic(m, SD_BUS_TYPE_INT64, &v);
        } else if constexpr (std::is_same_v<T, double>) {
          return sd_bus_message_append_basic(m, SD_BUS_TYPE_DOUBLE, &v);
        } else if constexpr (std::is_same_v<T, bool>) {
          const int b = v ? 1 : 0;
          return sd_bus_message_append_basic(m, SD_BUS_TYPE_BOOLEAN, &b);
        } else if constexpr (std::is_same_v<T, VelaDate>) {
          return appendDate(m, v);
        } else if constexpr (std::is_same_v<T, VelaData>) {
          return sd_bus_message_append_array(m, SD_BUS_TYPE_BYTE, v.data(), v.size());
        } else if constexpr (std::is_same_v<T, VelaArray>) {
          return appendVariantArray(m, v);
        } else if constexpr (std::is_same_v<T, VelaDictionary>) {
          return appendDictionary(m, v);
        } else {
          static_assert(std::is_same_v<T, VelaSet>);
          return appendSet(m, v);
        }
      },
      value.storage());
}

// Reads values of one complete type at a time. Every failure records a reason
// and unwinds; nothing partially read escapes.
class Reader {
 public:
  explicit Reader(sd_bus_message* m) : m_(m) {}

  // With `described`, keys it does not describe are skipped unread, and a
  // described record keeps only its class's keys.
  std::optional<VelaDictionary> dictionary(int depth, std::optional<FieldSets> described = std::nullopt) {
    VelaDictionary dict;
    const bool read = entries(depth, [&](const char* key, const char* valueSignature) {
      const protocol::Field* field = described ? describedField(*described, key) : nullptr;
      // Undescribed keys are skipped whatever they hold, but for a record's
      // class marker.
      if (field == nullptr && described && !isClassKey(key)) return skip(valueSignature);
      std::optional<VelaValue> value = field != nullptr ? describedValue(*field, depth + 1) : next(depth + 1);
      if (!value) return false;
      dict.insert_or_assign(key, std::move(*value));
      return true;
    });
    if (!read) return std::nullopt;
    return dict;
  }

  // dictionary(0, described), each described key handed to `sink` instead
  // of kept. A class marker is read as strictly, and dropped.
  bool describedKeys(FieldSets described, DescribedKeySink& sink) {
    return entries(0, [&](const char* key, const char* valueSignature) {
      const protocol::Field* field = describedField(described, key);
      if (field == nullptr) return isClassKey(key) ? next(1).has_value() : skip(valueSignature);
      return describedValue(*field, 1, sink);
    });
  }

  std::string reason;

 private:
  static bool isClassKey(const char* key) { return std::string_view(key) == protocol::kClassKey; }

  // Reads a dictionary with string keys, entry by entry: `readValue(key,
  // valueSignature)` reads or skips each entry's value, false when it
  // cannot. False when the dictionary cannot be read.
  template <typename ReadValue>
  bool entries(int depth, const ReadValue& readValue) {
    if (depth > kMaxDepth) return refuse("nesting too deep");
    // The usual a{sv} is entered at once: asking the message for its type
    // costs as much as entering it. A failed attempt reads nothing.
    std::string entrySignature = "sv";
    if (sd_bus_message_enter_container(m_, SD_BUS_TYPE_ARRAY, "{sv}") <= 0) {
      // The element type is taken from the message so that a{sX} with any
      // property-list value type is accepted, not only a{sv}.
      char type = 0;
      const char* contents = nullptr;
      if (sd_bus_message_peek_type(m_, &type, &contents) <= 0 || type != SD_BUS_TYPE_ARRAY || contents == nullptr ||
          contents[0] != '{' || contents[1] != 's') {
        return refuse("expected a dictionary with string keys");
      }
      entrySignature.assign(contents + 1, std::string_view(contents).size() - 2);
      if (sd_bus_message_enter_container(m_, SD_BUS_TYPE_ARRAY, contents) <= 0) return refuse("unreadable dictionary");
    }
    for (;;) {
      const int r = sd_bus_message_enter_container(m_, SD_BUS_TYPE_DICT_ENTRY, entrySignature.c_str());
      if (r < 0) return refuse("unreadable dictionary entry");
      if (r == 0) break;
      const char* key = nullptr;
      if (sd_bus_message_read_basic(m_, SD_BUS_TYPE_STRING, &key) <= 0) return refuse("unreadable dictionary key");
      if (!readValue(key, entrySignature.c_str() + 1)) return false;
      if (sd_bus_message_exit_container(m_) < 0) return refuse("unreadable dictionary entry");
    }
    if (sd_bus_message_exit_container(m_) < 0) return refuse("unreadable dictionary");
    return true;
  }

  bool skip(const char* signature) {
    if (sd_bus_message_skip(m_, signature) >= 0) return true;
    return refuse("unreadable dictionary entry");
  }

  bool refuse(const char* why) {
    fail(why);
    return false;
  }

  std::nullopt_t fail(const char* why) {
    if (reason.empty()) reason = why;
    return std::nullopt;
  }

  // The variant signature of a described basic type; nullptr for the others.
  static const char* basicSignature(protocol::WireType type) {
    switch (type) {
      case protocol::WireType::kString:
        return "s";
      case protocol::WireType::kInt32:
        return "i";
      case protocol::WireType::kInteger:
        return "x";
      case protocol::WireType::kBoolean:
        return "b";
      case protocol::WireType::kReal:
        return "d";
      default:
        return nullptr;
    }
  }

  // A described value, handed to `sink`: a string carried as the string it
  // is described as goes bare, anything else as the other describedValue()
  // reads it.
  bool describedValue(const protocol::Field& field, int depth, DescribedKeySink& sink) {
    if (field.type == protocol::WireType::kString && sd_bus_message_enter_container(m_, SD_BUS_TYPE_VARIANT, "s") > 0) {
      const char* text = nullptr;
      if (sd_bus_message_read_basic(m_, SD_BUS_TYPE_STRING, &text) <= 0) return refuse("unreadable value");
      if (sd_bus_message_exit_container(m_) < 0) return refuse("unreadable variant");
      sink.take(field, text);
      return true;
    }
    const std::optional<VelaValue> value = describedValue(field, depth);
    if (!value) return false;
    sink.take(field, *value);
    return true;
  }

  // A described value: a record (or described dictionary) keeps only the
  // keys of its shape; anything else is read in full. A variant holding
  // exactly the basic type the field is described with is entered at once:
  // asking the message for the type first costs as much as the read. An
  // attempt that does not match reads nothing, and the general reader then
  // takes the value (another integer width, say) or refuses it.
  std::optional<VelaValue> describedValue(const protocol::Field& field, int depth) {
    if (const char* signature = basicSignature(field.type);
        signature != nullptr && sd_bus_message_enter_container(m_, SD_BUS_TYPE_VARIANT, signature) > 0) {
      std::optional<VelaValue> value = basicValue(signature[0]);
      if (value && sd_bus_message_exit_container(m_) < 0) return fail("unreadable variant");
      return value;
    }
    if (field.type != protocol::WireType::kDictionary || field.shape == nullptr) return next(depth);
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(m_, &type, &contents) <= 0) return fail("value missing");
    bool inVariant = false;
    if (type == SD_BUS_TYPE_VARIANT) {
      if (sd_bus_message_enter_container(m_, SD_BUS_TYPE_VARIANT, contents) <= 0) return fail("unreadable variant");
      if (sd_bus_message_peek_type(m_, &type, &contents) <= 0) return fail("value missing");
      inVariant = true;
    }
    std::optional<VelaValue> value;
    if (type == SD_BUS_TYPE_ARRAY && contents != nullptr && contents[0] == '{') {
      const std::array<protocol::Fields, 1> nested{field.shape->fields};
      auto dict = dictionary(depth + 1, FieldSets(nested));
      if (!dict) return std::nullopt;
      value.emplace(std::move(*dict));
    } else {
      // Not a dictionary: read as it is, for the typed reader to refuse.
      value = next(depth + 1);
      if (!value) return std::nullopt;
    }
    if (inVariant && sd_bus_message_exit_container(m_) < 0) return fail("unreadable variant");
    return value;
  }

  template <typename T>
  std::optional<T> basic(char type) {
    T v{};
    if (sd_bus_message_read_basic(m_, type, &v) <= 0) {
      fail("unreadable value");
      return std::nullopt;
    }
    return v;
  }

  // Reads the next complete value, whatever its D-Bus type.
  std::optional<VelaValue> next(int depth) {
    if (depth > kMaxDepth) return fail("nesting too deep");
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(m_, &type, &contents) <= 0) return fail("value missing");
    switch (type) {
      case SD_BUS_TYPE_VARIANT: {
        if (sd_bus_message_enter_container(m_, SD_BUS_TYPE_VARIANT, contents) <= 0) return fail("unreadable variant");
        std::optional<VelaValue> inner = next(depth + 1);
        if (!inner) return std::nullopt;
        if (sd_bus_message_exit_container(m_) < 0) return fail("unreadable variant");
        return inner;
      }
      case SD_BUS_TYPE_ARRAY:
        return array(contents, depth);
      case SD_BUS_TYPE_STRUCT:
        return structure(contents, depth);
      default:
        return basicValue(type);
    }
  }

  // Reads the basic value of `type` at the read position.
  std::optional<VelaValue> basicValue(char type) {
    switch (type) {
      case SD_BUS_TYPE_STRING: {
        auto s = basic<const char*>(type);
        if (!s) return std::nullopt;
        return VelaValue(std::string(*s));
      }
      case SD_BUS_TYPE_BOOLEAN: {
        auto b = basic<int>(type);
        if (!b) return std::nullopt;
        return VelaValue(*b != 0);
      }
      case SD_BUS_TYPE_BYTE:
        return integer<std::uint8_t>(type);
      case SD_BUS_TYPE_INT16:
        return integer<std::int16_t>(type);
      case SD_BUS_TYPE_UINT16:
        return integer<std::uint16_t>(type);
      case SD_BUS_TYPE_INT32:
        return integer<std::int32_t>(type);
      case SD_BUS_TYPE_UINT32:
        return integer<std::uint32_t>(type);
      case SD_BUS_TYPE_INT64:
        return integer<std::int64_t>(type);
      case SD_BUS_TYPE_UINT64: {
        auto u = basic<std::uint64_t>(type);
        if (!u) return std::nullopt;
        if (*u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
          return fail("integer out of range");
        }
        return VelaValue(static_cast<std::int64_t>(*u));
      }
      case SD_BUS_TYPE_DOUBLE: {
        auto d = basic<double>(type);
        if (!d) return std::nullopt;
        return VelaValue(*d);
      }
      default:
        return fail("value of a type with no property-list meaning");
    }
  }

  template <typename T>
  std::optional<VelaValue> integer(char type) {
    auto v = basic<T>(type);
    if (!v) return std::nullopt;
    return VelaValue{static_cast<std::int64_t>(*v)};
  }

  std::optional<VelaValue> array(const char* contents, int depth) {
    const std::string_view element(contents);
    if (element == "y") {
      const void* bytes = nullptr;
      size_t size = 0;
      if (sd_bus_message_read_array(m_, SD_BUS_TYPE_BYTE, &bytes, &size) < 0) return fail("unreadable data");
      const auto* begin = static_cast<const std::uint8_t*>(bytes);
      return VelaValue(VelaData(begin, begin + size));
    }
    if (!element.empty() && element.front() == '{') {
      auto dict = dictionary(depth);
      if (!dict) return std::nullopt;
      // In place: g++ 12 at -O2 takes a moved-from temporary here for uninitialised.
      return std::optional<VelaValue>(std::in_place, std::move(*dict));
    }
    auto items = arrayItems(contents, depth);
    if (!items) return std::nullopt;
    return VelaValue(std::move(*items));
  }

  std::optional<VelaArray> arrayItems(const char* contents, int depth) {
    if (sd_bus_message_enter_container(m_, SD_BUS_TYPE_ARRAY, contents) <= 0) {
      fail("unreadable array");
      return std::nullopt;
    }
    VelaArray items;
    for (;;) {
      char type = 0;
      const int r = sd_bus_message_peek_type(m_, &type, nullptr);
      if (r < 0) {
        fail("unreadable array");
        return std::nullopt;
      }
      if (r == 0) break;
      std::optional<VelaValue> item = next(depth + 1);
      if (!item) return std::nullopt;
      items.push_back(std::move(*item));
    }
    if (sd_bus_message_exit_container(m_) < 0) {
      fail("unreadable array");
      return std::nullopt;
    }
    return items;
  }

  // Only two structures mean anything: a date (d) and a set (av).
  std::optional<VelaValue> structure(const char* contents, int depth) {
    const std::string_view signature(contents);
    if (signature != "d" && signature != "av") return fail("structure with no property-list meaning");
    if (sd_bus_message_enter_container(m_, SD_BUS_TYPE_STRUCT, contents) <= 0) return fail("unreadable structure");
    std::optional<VelaValue> result;
    if (signature == "d") {
      auto seconds = basic<double>(SD_BUS_TYPE_DOUBLE);
      if (!seconds) return std::nullopt;
      result = VelaValue(VelaDate{*seconds});
    } else {
      auto members = arrayItems("v", depth + 1);
      if (!members) return std::nullopt;
      result = VelaValue(VelaSet{std::move(*members)});
    }
    if (sd_bus_message_exit_container(m_) < 0) return fail("unreadable structure");
    return result;
  }

  sd_bus_message* m_;
};

}  // namespace

int appendVariant(sd_bus_message* message, const VelaValue& value) {
  int r = sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, variantSignature(value));
  if (r >= 0) r = appendContents(message, value);
  return r < 0 ? r : sd_bus_message_close_container(message);
}

namespace {

// One entry's value, typed as its field says when it is described.
int appendDescribedVariant(sd_bus_message* m, const VelaValue& value, const protocol::Field* field) {
  if (field == nullptr) return appendVariant(m, value);
  const auto* integer = value.getIf<std::int64_t>();
  if (field->type == protocol::WireType::kInt32 && integer != nullptr) {
    // A number that does not fit is sent as it is rather than cut: the
    // reader then refuses it instead of reading a different number.
    if (const auto narrow = protocol::narrowToInt32(*integer)) return appendInt32Variant(m, *narrow);
  }
  const VelaDictionary* inner = value.asDictionary();
  if (field->type == protocol::WireType::kDictionary && field->shape != nullptr && inner != nullptr) {
    int r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, "a{sv}");
    const std::array<protocol::Fields, 1> nested{field->shape->fields};
    if (r >= 0) r = appendDictionary(m, *inner, nested);
    return r < 0 ? r : sd_bus_message_close_container(m);
  }
  return appendVariant(m, value);
}

}  // namespace

[[gnu::hot]] int appendDictionary(sd_bus_message* message, const VelaDictionary& dict, FieldSets described) {
  int r = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  for (const auto& [key, value] : dict) {
    if (r < 0) return r;
    if (key.find('\0') != std::string::npos) return -EINVAL;
    r = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv");
    if (r >= 0) r = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, key.c_str());
    if (r >= 0) r = appendDescribedVariant(message, value, describedField(described, key));
    if (r >= 0) r = sd_bus_message_close_container(message);
  }
  return r < 0 ? r : sd_bus_message_close_container(message);
}

std::optional<VelaDictionary> readDictionary(sd_bus_message* message, std::string* whyNot) {
  Reader reader(message);
  std::optional<VelaDictionary> dict = reader.dictionary(0);
  if (!dict && whyNot != nullptr) *whyNot = reader.reason;
  return dict;
}

std::optional<VelaDictionary> readDescribedKeys(sd_bus_message* message, FieldSets described, std::string* whyNot) {
  Reader reader(message);
  std::optional<VelaDictionary> dict = reader.dictionary(0, described);
  if (!dict && whyNot != nullptr) *whyNot = reader.reason;
  return dict;
}

[[gnu::hot]] bool readDescribedKeys(sd_bus_message* message, FieldSets described, DescribedKeySink& sink,
                                    std::string* whyNot) {
  Reader reader(message);
  const bool read = reader.describedKeys(described, sink);
  if (!read && whyNot != nullptr) *whyNot = reader.reason;
  return read;
}

}  // namespace vela::bus
