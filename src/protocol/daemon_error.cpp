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

std::optional<std::optional<VelaError>> decodeDaemonError(const VelaDictionary& reply) {
  TypedReader outer(reply);
  const VelaDictionary* fields = outer.dictionary(kErrorKey);
  if (!outer.ok()) return std::nullopt;
  if (fields == nullptr) return std::optional<VelaError>();
  TypedReader error(*fields);
  auto domain = error.string(kErrorDomainKey);
  const auto code = error.integer(kErrorCodeKey);
  const VelaDictionary* userInfo = error.dictionary(kErrorUserInfoKey);
  if (!error.ok() || !domain || !code) return std::nullopt;
  return std::optional<VelaError>(std::in_place, std::move(*domain), *code,
                                  userInfo != nullptr ? *userInfo : VelaDictionary{});
}

}  // namespace vela::protocol
