// SPDX-License-Identifier: MIT
#include "request_limits.h"

#include <type_traits>
#include <variant>

namespace vela::daemon {
namespace {

// Adds the bytes of `value` to `total`; false at the first value over
// kMaxValueBytes or once the total passes kMaxRequestBytes. Depth is bounded
// by what the bus lets a message nest (64), so recursion is safe.
bool measure(const VelaValue& value, std::size_t& total);

bool measureDictionary(const VelaDictionary& dictionary, std::size_t& total);

bool measureBytes(std::size_t size, std::size_t& total) {
  total += size;
  return size <= kMaxValueBytes && total <= kMaxRequestBytes;
}

template <typename Container>
bool measureEach(const Container& items, std::size_t& total) {
  for (const auto& item : items) {
    if (!measure(item, total)) return false;
  }
  return true;
}

bool measure(const VelaValue& value, std::size_t& total) {
  return std::visit(
      [&total](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::string> || std::is_same_v<Held, VelaData>) {
          return measureBytes(held.size(), total);
        } else if constexpr (std::is_same_v<Held, VelaDictionary>) {
          return measureDictionary(held, total);
        } else if constexpr (std::is_same_v<Held, VelaArray>) {
          return measureEach(held, total);
        } else if constexpr (std::is_same_v<Held, VelaSet>) {
          return measureEach(held.members, total);
        } else {
          return true;
        }
      },
      value.storage());
}

bool measureDictionary(const VelaDictionary& dictionary, std::size_t& total) {
  for (const auto& [key, item] : dictionary) {
    if (!measureBytes(key.size(), total) || !measure(item, total)) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> overLimit(const VelaDictionary& request) {
  std::size_t total = 0;
  if (measureDictionary(request, total)) return std::nullopt;
  return "the request is too large (each string and data value at most " + std::to_string(kMaxValueBytes) + " bytes, " +
         std::to_string(kMaxRequestBytes) + " in all)";
}

}  // namespace vela::daemon
