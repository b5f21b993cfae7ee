// SPDX-License-Identifier: MIT
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace {
// What a completion sees when the request could not be carried: not a settled
// state, so a caller who looks only at the number does not act on it.
constexpr std::int32_t kStateUnknownAfterFailure = 4;

bool isSettled(std::int32_t state) { return state == 1 || state == 2; }
}  // namespace

void VelaNotifySession::locusStateWithCompletion(LocusStateCompletion completion) {
  auto onFailure = [completion](const VelaError& error) {
    if (completion) completion(kStateUnknownAfterFailure, error);
  };
  vela::session::callAsynchronously(*this, "locusState", onFailure, [&](auto& proxy) {
    proxy.getLocusStateUsingCallback([completion](std::int32_t state, std::optional<VelaError> error) {
      if (completion) completion(state, std::move(error));
    });
  });
}

void VelaNotifySession::isLocusStateChangeInProgressWithCompletion(InProgressCompletion completion) {
  locusStateWithCompletion([completion = std::move(completion)](std::int32_t state, std::optional<VelaError> error) {
    if (!completion) return;
    const bool inProgress = !error && !isSettled(state);
    completion(inProgress, std::move(error));
  });
}

std::optional<VelaError> VelaNotifySession::enableLocusInContext(std::int32_t context) {
  return vela::session::callSynchronously(
             *this, "enableLocus",
             [&](auto& proxy, auto reply) { proxy.enableLocusInContext(context, std::move(reply)); })
      .error;
}

std::optional<VelaError> VelaNotifySession::disableLocusUsingToken(std::optional<std::string> token,
                                                                   std::int32_t context) {
  return vela::session::callSynchronously(*this, "disableLocus",
                                          [&](auto& proxy, auto reply) {
                                            proxy.disableLocusUsingToken(std::move(token), context, std::move(reply));
                                          })
      .error;
}
