// SPDX-License-Identifier: MIT
#include "handset_service.h"

#include <unistd.h>

#include <cstring>
#include <memory>

#include "log.h"
#include "session/handset_wire.h"

namespace vela::daemon {

void HandsetService::callArrived(bus::IncomingCall call) {
  logVerbose(call.member + " from " + call.sender);
  if (!call.args) {
    logVerbose(call.member + " refused: " + call.argsProblem);
    call.reply.replyError(bus::kInvalidArgsError, call.argsProblem);
    return;
  }
  const Behavior behavior =
      testing_ != nullptr ? testing_->behaviorForCall(call.member, *call.args, call.sender) : Behavior{};
  if (behavior.delay.count() > 0) {
    // std::function needs a copyable closure; the call (and its reply token)
    // is shared with it instead.
    auto delayed = std::make_shared<bus::IncomingCall>(std::move(call));
    const int r = host_.addTimer(behavior.delay, [this, behavior, delayed] { carryOut(behavior, *delayed); });
    if (r >= 0) return;
    logLine(std::string("cannot delay an answer: ") + std::strerror(-r));
    carryOut(behavior, *delayed);
    return;
  }
  carryOut(behavior, call);
}

void HandsetService::carryOut(const Behavior& behavior, bus::IncomingCall& call) {
  int r = 0;
  switch (behavior.mode) {
    case BehaviorMode::kExit:
      logLine("exiting in the middle of " + call.member + ", as the test asked");
      _exit(0);
    case BehaviorMode::kNever:
      // The token goes with the call: the caller waits into its own timeout.
      return;
    case BehaviorMode::kMalformed:
      r = call.reply.replyWithString("not a dictionary");
      break;
    case BehaviorMode::kError:
      r = call.reply.reply(replyBody({}, behavior.error), vela::session::wire::kInt32Keys);
      break;
    case BehaviorMode::kValues:
      r = call.reply.reply(replyBody(behavior.values, behavior.error), vela::session::wire::kInt32Keys);
      break;
    case BehaviorMode::kNormal:
    case BehaviorMode::kDelay: {
      const Answer answer = actions_.perform(call.member, *call.args, call.sender);
      if (answer.refusal) {
        logVerbose(call.member + " refused: " + *answer.refusal);
        r = call.reply.replyError(bus::kInvalidArgsError, *answer.refusal);
      } else {
        r = call.reply.reply(replyBody(answer.values, answer.error), vela::session::wire::kInt32Keys);
      }
      break;
    }
  }
  if (r < 0) logLine("cannot answer " + call.member + ": " + std::strerror(-r));
}

}  // namespace vela::daemon
