// SPDX-License-Identifier: MIT
#include "protocol/locus_state.h"

#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace calls = vela::session::calls;

void VelaNotifySession::locusStateWithCompletion(LocusStateCompletion completion) {
  // Exactly one of the two runs, and only while the session exists.
  auto finish = [gate = vela::session::SessionInternals::completions(*this), completion = std::move(completion)](
                    std::int32_t state, std::optional<VelaError> error) {
    if (completion) gate->run([&] { completion(state, std::move(error)); });
  };
  auto onFailure = [finish](const VelaError& error) { finish(vela::protocol::kLocusStateUnknown, error); };
  vela::session::callAsynchronously(*this, "locusState", onFailure, [&](auto& proxy) {
    proxy.getLocusStateUsingCallback(
        [finish](std::int32_t state, std::optional<VelaError> error) { finish(state, std::move(error)); });
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
  return vela::session::callSynchronously(*this, "disableLocus", calls::kDisableLocusUsingToken, std::move(token),
                                          context)
      .error;
}

void VelaNotifySession::enableLocusInContextAsync(std::int32_t context, ErrorCompletion completion) {
  vela::session::callWithoutBlocking(*this, calls::kEnableLocusInContext, vela::session::errorTo(std::move(completion)),
                                     context);
}

void VelaNotifySession::disableLocusUsingTokenAsync(std::optional<std::string> token, std::int32_t context,
                                                    ErrorCompletion completion) {
  vela::session::callWithoutBlocking(*this, calls::kDisableLocusUsingToken,
                                     vela::session::errorTo(std::move(completion)), std::move(token), context);
}
