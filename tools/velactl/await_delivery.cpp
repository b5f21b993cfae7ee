// SPDX-License-Identifier: MIT
#include <future>

#include <vela/VelaNotifySession.h>
#include <vela/VelaSync.h>

#include "command.h"

namespace velactl {

void awaitDelivery() {
  const auto lastResult = velaLastOperationResult.load();
  auto answered = std::make_shared<std::promise<void>>();
  std::future<void> done = answered->get_future();
  // Everyone may ask for the locating state, so the query itself is never
  // refused; it completes within the library's 5 seconds whatever happens.
  VelaNotifySession::sharedInstance()->locusStateWithCompletion(
      [answered](std::int32_t /*state*/, const std::optional<VelaError>& /*error*/) { answered->set_value(); });
  done.wait();
  velaLastOperationResult.store(lastResult);
}

}  // namespace velactl
