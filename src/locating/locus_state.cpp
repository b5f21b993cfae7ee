// SPDX-License-Identifier: MIT
#include "protocol/locus_state.h"

#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace calls = vela::session::calls;

void VelaNotifySession::locusStateWithCompletion(LocusStateCompletion completion) {
  auto onFailure = [completion](const VelaError& error) {
    if (completion) completion(vela::protocol::kLocusStateUnknown, error);
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
    const bool inProgress = !error && !vela::protocol::isSettledLocusState(state);
    completion(inProgress, std::move(error));
  });
}

std::optional<VelaError> VelaNotifySession::enableLocusInContext(std::int32_t context) {
  return vela::session::callSynchronously(*this, "enableLocus", calls::kEnableLocusInContext, context).error;
}

std::optional<VelaError> VelaNotifySession::disableLocusUsingToken(std::optional<std::string> token,
                                                                   std::int32_t context) {
  return vela::session::callSynchronously(*this, "disableLocus", calls::kDisableLocusUsingToken, token, context).error;
}
