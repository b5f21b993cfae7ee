// SPDX-License-Identifier: MIT
#include "handset_service.h"

#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>

#include "log.h"
#include "protocol/daemon_error.h"
#include "protocol/members.h"

namespace vela::daemon {

void HandsetService::callArrived(IncomingCall call) {
  logVerbose(call.member + " from " + call.sender);
  if (!call.args) {
    logVerbose(call.member + " refused: " + call.argsProblem);
    if (const int r = call.reply.replyError(kInvalidArgsError, call.argsProblem); r < 0) {
      logLine("cannot refuse " + call.member + ": " + std::strerror(-r));
    }
    return;
  }
  const Behavior behavior =
      testing_ != nullptr ? testing_->behaviorForCall(call.member, *call.args, call.sender) : Behavior{};
  if (behavior.delay.count() > 0) {
    // std::function needs a copyable closure; the call (and its reply token)
    // is shared with it instead.
    auto delayed = std::make_shared<IncomingCall>(std::move(call));
    const int r = host_.addTimer(behavior.delay, [this, behavior, delayed] { carryOut(behavior, *delayed); });
    if (r >= 0) return;
    logLine(std::string("cannot delay an answer: ") + std::strerror(-r));
    carryOut(behavior, *delayed);
    return;
  }
  carryOut(behavior, call);
}

void HandsetService::carryOut(const Behavior& behavior, IncomingCall& call) {
  // Every reply is typed as the member describes it, at every depth; a test's
  // wrongly typed values stay wrong, only fitting numbers take their type.
  const protocol::Member* member = protocol::findMember(call.member);
  const std::array<protocol::Fields, 2> described{member != nullptr ? member->reply : protocol::Fields{},
                                                  protocol::Fields(&protocol::kDaemonErrorField, 1)};
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
      r = call.reply.reply(replyBody({}, behavior.error), described);
      break;
    case BehaviorMode::kValues:
      r = call.reply.reply(replyBody(behavior.values, behavior.error), described);
      break;
    case BehaviorMode::kNormal:
    case BehaviorMode::kDelay: {
      const Answer answer = actions_.perform(call.member, *call.args, call.sender);
      if (answer.refusal) {
        logVerbose(call.member + " refused: " + *answer.refusal);
        r = call.reply.replyError(kInvalidArgsError, *answer.refusal);
      } else {
        r = call.reply.reply(replyBody(answer.values, answer.error), described);
      }
      break;
    }
  }
  if (r < 0) logLine("cannot answer " + call.member + ": " + std::strerror(-r));
}

}  // namespace vela::daemon
