// SPDX-License-Identifier: MIT
#include <array>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <type_traits>

#include <vela/VelaValue.h>

namespace vela::value {
namespace {

// 2^63 as a double: the first real that no longer fits an int64.
constexpr double kInt64Bound = 9223372036854775808.0;
// Year 1 to year 9999: the range in which a calendar date prints meaningfully.
constexpr double kEarliestPrintableDate = -62135596800.0;
constexpr double kLatestPrintableDate = 253402300799.0;

void appendReal(std::string& out, double d) {
  std::array<char, 32> buf{};
  auto [end, ec] = std::to_chars(buf.data(), buf.data() + buf.size(), d);
  std::string_view text(buf.data(), ec == std::errc() ? static_cast<std::size_t>(end - buf.data()) : 0);
  out += text;
  // A whole real would otherwise read exactly like an integer.
  if (std::isfinite(d) && text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

void appendDate(std::string& out, VelaDate date) {
  const double s = date.secondsSince1970;
  if (!(s >= kEarliestPrintableDate && s <= kLatestPrintableDate)) {
    out += "date(";
    appendReal(out, s);
    out += ')';
    return;
  }
  const std::int64_t ms = std::llround(s * 1000.0);
  std::int64_t whole = ms / 1000;
  std::int64_t frac = ms % 1000;
  if (frac < 0) {  // floor, not truncation, so that times before 1970 keep a positive fraction
    frac += 1000;
    --whole;
  }
  const auto t = static_cast<std::time_t>(whole);
  std::tm tm{};
  gmtime_r(&t, &tm);
  std::array<char, 40> buf{};
  int n = std::snprintf(buf.data(), buf.size(), "%04d-%02d-%02dT%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                        tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  out.append(buf.data(), static_cast<std::size_t>(n));
  if (frac != 0) {
    n = std::snprintf(buf.data(), buf.size(), ".%03" PRId64, frac);
    out.append(buf.data(), static_cast<std::size_t>(n));
  }
  out += 'Z';
}

void appendHex(std::string& out, std::uint8_t byte) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  out += kHexDigits[byte >> 4];
  out += kHexDigits[byte & 0xf];
}

void appendQuoted(std::string& out, std::string_view s) {
  out += '"';
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += "\\x";
          appendHex(out, static_cast<std::uint8_t>(c));
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

void appendValue(std::string& out, const VelaValue& value, bool nested);

void appendData(std::string& out, const VelaData& data) {
  out += "h'";
  for (std::uint8_t byte : data) appendHex(out, byte);
  out += '\'';
}

void appendEntries(std::string& out, const VelaDictionary& entries) {
  out += '{';
  bool first = true;
  for (const auto& [key, member] : entries) {
    if (!first) out += ", ";
    first = false;
    appendQuoted(out, key);
    out += ": ";
    appendValue(out, member, true);
  }
  out += '}';
}

void appendList(std::string& out, const VelaArray& members) {
  out += '[';
  bool first = true;
  for (const VelaValue& member : members) {
    if (!first) out += ", ";
    first = false;
    appendValue(out, member, true);
  }
  out += ']';
}

void appendValue(std::string& out, const VelaValue& value, bool nested) {
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          // Alone, a string reads as its own text; inside a container quotes keep its boundaries visible.
          if (nested) {
            appendQuoted(out, v);
          } else {
            out += v;
          }
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          out += std::to_string(v);
        } else if constexpr (std::is_same_v<T, double>) {
          appendReal(out, v);
        } else if constexpr (std::is_same_v<T, bool>) {
          out += v ? "true" : "false";
        } else if constexpr (std::is_same_v<T, VelaDate>) {
          appendDate(out, v);
        } else if constexpr (std::is_same_v<T, VelaData>) {
          appendData(out, v);
        } else if constexpr (std::is_same_v<T, VelaArray>) {
          appendList(out, v);
        } else if constexpr (std::is_same_v<T, VelaDictionary>) {
          appendEntries(out, v);
        } else {
          static_assert(std::is_same_v<T, VelaSet>);
          out += "set";
          appendList(out, v.members);
        }
      },
      value.storage());
}

}  // namespace
}  // namespace vela::value

std::optional<double> VelaValue::numberAsDouble() const noexcept {
  if (const auto* i = getIf<std::int64_t>()) return static_cast<double>(*i);
  if (const auto* d = getIf<double>()) return *d;
  if (const auto* b = getIf<bool>()) return *b ? 1.0 : 0.0;
  return std::nullopt;
}

std::optional<std::int64_t> VelaValue::numberAsInteger() const noexcept {
  if (const auto* i = getIf<std::int64_t>()) return *i;
  if (const auto* b = getIf<bool>()) return *b ? 1 : 0;
  if (const auto* d = getIf<double>()) {
    // Converting an out-of-range real is undefined behaviour; a value from the
    // bus or the store can be anything, so saturate instead.
    if (std::isnan(*d)) return std::nullopt;
    if (*d >= vela::value::kInt64Bound) return std::numeric_limits<std::int64_t>::max();
    if (*d < -vela::value::kInt64Bound) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(*d);
  }
  return std::nullopt;
}

std::string VelaValue::description() const {
  std::string out;
  vela::value::appendValue(out, *this, false);
  return out;
}

bool operator==(const VelaValue& a, const VelaValue& b) { return a.storage_ == b.storage_; }

bool operator==(const VelaSet& a, const VelaSet& b) {
  if (a.members.size() != b.members.size()) return false;
  // Members have no order or hash, so match each of a's members to a distinct
  // equal member of b. Greedy matching is exact because equality is transitive.
  std::vector<bool> taken(b.members.size(), false);
  for (const VelaValue& member : a.members) {
    bool matched = false;
    for (std::size_t j = 0; j < b.members.size(); ++j) {
      if (!taken[j] && b.members[j] == member) {
        taken[j] = true;
        matched = true;
        break;
      }
    }
    if (!matched) return false;
  }
  return true;
}

std::string_view VelaValueTypeName(VelaValue::Type type) {
  switch (type) {
    case VelaValue::Type::kString:
      return "string";
    case VelaValue::Type::kInteger:
      return "integer";
    case VelaValue::Type::kReal:
      return "real";
    case VelaValue::Type::kBoolean:
      return "boolean";
    case VelaValue::Type::kDate:
      return "date";
    case VelaValue::Type::kData:
      return "data";
    case VelaValue::Type::kArray:
      return "array";
    case VelaValue::Type::kDictionary:
      return "dictionary";
    case VelaValue::Type::kSet:
      return "set";
  }
  return "unknown";
}
