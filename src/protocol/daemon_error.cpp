// SPDX-License-Identifier: MIT
#include "protocol/daemon_error.h"

#include "protocol/typed_reader.h"

namespace vela::protocol {

VelaDictionary encodeDaemonError(const VelaError& error) {
  return VelaDictionary{
      {std::string(kErrorDomainKey), error.domain()},
      {std::string(kErrorCodeKey), error.code()},
      {std::string(kErrorUserInfoKey), error.userInfo()},
  };
}

std::optional<VelaError> decodeDaemonError(const VelaValue& value) {
  const VelaDictionary* fields = value.asDictionary();
  if (fields == nullptr) return std::nullopt;
  TypedReader error(*fields);
  auto domain = error.string(kErrorDomainKey);
  const auto code = error.integer(kErrorCodeKey);
  const VelaDictionary* userInfo = error.dictionary(kErrorUserInfoKey);
  if (!error.ok() || !domain || !code) return std::nullopt;
  return VelaError(std::move(*domain), *code, userInfo != nullptr ? *userInfo : VelaDictionary{});
}

}  // namespace vela::protocol
