// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaValue.h>

#include "records/archive_io.h"

namespace vela::daemon {

// Typed reads of a request's keys. An absent key is nil, which each member
// judges for itself; a present key of the wrong type (or a record of the
// wrong class) spoils the whole request, which is then refused as malformed.
class RequestArguments {
 public:
  explicit RequestArguments(const VelaDictionary& args) : args_(args) {}

  std::optional<std::string> string(std::string_view key) {
    const VelaValue* value = find(key);
    if (value == nullptr) return std::nullopt;
    if (const std::string* s = value->asString()) return *s;
    refuse(key, "a string");
    return std::nullopt;
  }

  // Integers of any width are accepted as long as the value fits.
  std::optional<std::int32_t> int32(std::string_view key) {
    const VelaValue* value = find(key);
    if (value == nullptr) return std::nullopt;
    const auto* i = value->getIf<std::int64_t>();
    if (i != nullptr && *i >= std::numeric_limits<std::int32_t>::min() &&
        *i <= std::numeric_limits<std::int32_t>::max()) {
      return static_cast<std::int32_t>(*i);
    }
    refuse(key, "a 32-bit integer");
    return std::nullopt;
  }

  template <class Record>
  std::shared_ptr<Record> record(std::string_view key) {
    const VelaValue* value = find(key);
    if (value == nullptr) return nullptr;
    std::string whyNot;
    std::shared_ptr<Record> decoded = records::unarchiveRecord<Record>(*value, &whyNot);
    if (decoded == nullptr) refuse(key, std::string(Record::kClassName) + " (" + whyNot + ")");
    return decoded;
  }

  // Why the request must be refused; nullopt while every key read so far had
  // its type.
  const std::optional<std::string>& problem() const noexcept { return problem_; }

 private:
  const VelaValue* find(std::string_view key) const {
    const auto found = args_.find(key);
    return found != args_.end() ? &found->second : nullptr;
  }

  void refuse(std::string_view key, const std::string& expected) {
    if (!problem_) problem_ = "\"" + std::string(key) + "\" must be " + expected;
  }

  const VelaDictionary& args_;
  std::optional<std::string> problem_;
};

}  // namespace vela::daemon
