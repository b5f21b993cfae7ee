// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaValue.h>

#include "records/archive_io.h"

namespace vela::protocol {

// How a message's text names a key it refuses: `key` in double quotes,
// then `why`, as in "\"token\" must be a string".
std::string refusedKey(std::string_view key, std::string_view why);

// Typed reads of a dictionary's keys, for requests and replies alike. An
// absent key is nil; a present key of the wrong type (or a record of the
// wrong class) spoils the whole dictionary: problem() then says which key,
// and the caller refuses the message rather than use half of it.
class TypedReader {
 public:
  explicit TypedReader(const VelaDictionary& dictionary) : dictionary_(dictionary) {}

  std::optional<std::string> string(std::string_view key);

  // Any integer type is accepted as long as the value fits in 32 bits.
  std::optional<std::int32_t> int32(std::string_view key);

  std::optional<std::int64_t> integer(std::string_view key);

  const VelaDictionary* dictionary(std::string_view key);

  template <class Record>
  std::shared_ptr<Record> record(std::string_view key) {
    const VelaValue* value = find(key);
    if (value == nullptr) return nullptr;
    std::string whyNot;
    std::shared_ptr<Record> decoded = records::unarchiveRecord<Record>(*value, &whyNot);
    if (decoded == nullptr) refuse(key, std::string(Record::kClassName) + " (" + whyNot + ")");
    return decoded;
  }

  // Why the dictionary must be refused; nullopt while every key read so far
  // had its type.
  const std::optional<std::string>& problem() const noexcept { return problem_; }
  bool ok() const noexcept { return !problem_; }

 private:
  const VelaValue* find(std::string_view key) const {
    const auto found = dictionary_.find(key);
    return found != dictionary_.end() ? &found->second : nullptr;
  }

  void refuse(std::string_view key, const std::string& expected);

  const VelaDictionary& dictionary_;
  std::optional<std::string> problem_;
};

}  // namespace vela::protocol
