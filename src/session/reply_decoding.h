// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

#include "records/archive_io.h"

// Typed reads of reply keys. An absent key is nil; a present key of the wrong
// type makes the whole reply undecodable (each reader then returns false), so
// a caller never sees a half-filled answer.
namespace vela::session {

bool readString(const VelaDictionary& reply, std::string_view key, std::optional<std::string>& out);

// An absent state reads as 0; anything but an integer that fits in 32 bits
// does not decode.
bool readInt32(const VelaDictionary& reply, std::string_view key, std::int32_t& out);

// The daemon's error under "error": {domain s, code x, userInfo a{sv}}. A
// missing user info is empty; a missing domain or code does not decode.
bool readDaemonError(const VelaDictionary& reply, std::optional<VelaError>& out);

template <typename Record>
bool readRecord(const VelaDictionary& reply, std::string_view key, std::shared_ptr<Record>& out) {
  const auto found = reply.find(key);
  if (found == reply.end()) {
    out = nullptr;
    return true;
  }
  out = records::unarchiveRecord<Record>(found->second);
  return out != nullptr;
}

// The daemon's error as it travels: the inverse of readDaemonError.
VelaDictionary encodeDaemonError(const VelaError& error);

}  // namespace vela::session
