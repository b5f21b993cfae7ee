// SPDX-License-Identifier: MIT
#include "session/reply_decoding.h"

#include <limits>

#include "session/handset_wire.h"

namespace vela::session {

bool readString(const VelaDictionary& reply, std::string_view key, std::optional<std::string>& out) {
  const auto found = reply.find(key);
  if (found == reply.end()) {
    out.reset();
    return true;
  }
  const std::string* value = found->second.asString();
  if (value == nullptr) return false;
  out = *value;
  return true;
}

bool readInt32(const VelaDictionary& reply, std::string_view key, std::int32_t& out) {
  const auto found = reply.find(key);
  if (found == reply.end()) {
    out = 0;
    return true;
  }
  const auto* value = found->second.getIf<std::int64_t>();
  if (value == nullptr || *value < std::numeric_limits<std::int32_t>::min() ||
      *value > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  out = static_cast<std::int32_t>(*value);
  return true;
}

bool readDaemonError(const VelaDictionary& reply, std::optional<VelaError>& out) {
  out.reset();
  const auto found = reply.find(wire::key::kError);
  if (found == reply.end()) return true;
  const VelaDictionary* error = found->second.asDictionary();
  if (error == nullptr) return false;
  const auto domain = error->find(wire::key::kErrorDomain);
  const auto code = error->find(wire::key::kErrorCode);
  const auto userInfo = error->find(wire::key::kErrorUserInfo);
  if (domain == error->end() || domain->second.asString() == nullptr) return false;
  if (code == error->end() || code->second.getIf<std::int64_t>() == nullptr) return false;
  if (userInfo != error->end() && userInfo->second.asDictionary() == nullptr) return false;
  out = VelaError(*domain->second.asString(), *code->second.getIf<std::int64_t>(),
                  userInfo != error->end() ? *userInfo->second.asDictionary() : VelaDictionary{});
  return true;
}

VelaDictionary encodeDaemonError(const VelaError& error) {
  return VelaDictionary{
      {std::string(wire::key::kErrorDomain), error.domain()},
      {std::string(wire::key::kErrorCode), error.code()},
      {std::string(wire::key::kErrorUserInfo), error.userInfo()},
  };
}

}  // namespace vela::session
