// SPDX-License-Identifier: MIT
#include "handset_service.h"

#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>

#include "daemon_errors.h"
#include "log.h"
#include "protocol/daemon_error.h"
#include "protocol/members.h"
#include "request_limits.h"

namespace vela::daemon {
namespace {

// Sends `answer`, each reply typed as the member describes it, at every
// depth; a test's wrongly typed values stay wrong, only fitting numbers take
// their type.
int sendAnswer(IncomingCall& call, const VelaDictionary& values, const std::optional<VelaError>& error) {
  const protocol::Member* member = protocol::findMember(call.member);
  const std::array<protocol::Fields, 2> described{member != nullptr ? member->reply : protocol::Fields{},
                                                  protocol::Fields(&protocol::kDaemonErrorField, 1)};
  return call.reply.reply(replyBody(values, error), described);
}

std::string describeCaller(const std::optional<Credentials>& caller) {
  if (!caller) return "a caller that has left";
  return "uid " + std::to_string(caller->uid) + " pid " + std::to_string(caller->pid);
}

}  // namespace

void HandsetService::callArrived(IncomingCall call) {
  // The bus vouches for the form of member and sender names; they are
  // escaped all the same, as everything that comes with a call is.
  if (logs(LogLevel::kDebug)) log(LogLevel::kDebug, printable(call.member) + " from " + printable(call.sender));
  if (!call.args) {
    if (logs(LogLevel::kDebug)) {
      log(LogLevel::kDebug, printable(call.member) + " refused: " + printable(call.argsProblem));
    }
    if (const int r = call.reply.replyError(kInvalidArgsError, call.argsProblem); r < 0) {
      log(LogLevel::kWarning, "cannot refuse " + printable(call.member) + ": " + std::strerror(-r));
    }
    return;
  }
  if (testing_ != nullptr) testing_->logCall(call.member, *call.args, call.sender);
  // Before the call waits anywhere: an oversized one is not even kept.
  if (const std::optional<std::string> over = overLimit(*call.args)) {
    refuse(call, daemonError(VelaDaemonErrorCodeLimitExceeded, *over), std::nullopt);
    return;
  }
  // Most calls need no one's permission and find nothing of their caller's
  // waiting: they are carried out at once, without a queue.
  if (actionFor(call.member) == Action::kNone && !waiting_.contains(call.sender)) {
    perform(call, Caller{call.sender, false});
    return;
  }
  const std::string sender = call.sender;
  waiting_[sender].calls.push_back(std::move(call));
  admitNext(sender);
}

void HandsetService::admitNext(const std::string& sender) {
  for (;;) {
    const auto entry = waiting_.find(sender);
    if (entry == waiting_.end() || entry->second.checking) return;
    if (entry->second.calls.empty()) {
      waiting_.erase(entry);
      return;
    }
    entry->second.checking = true;
    const IncomingCall& next = entry->second.calls.front();
    // Decided at once (no action, or a caller the authorizer already knows
    // to be trusted): the loop goes on here. Decided later: the answer
    // carries on from there.
    auto deciding = std::make_shared<bool>(true);
    authorizer_.check(sender, actionFor(next.member), next.allowsInteraction,
                      [this, sender, deciding](Verdict verdict, const std::optional<Credentials>& caller) {
                        decided(sender, verdict, caller);
                        if (!*deciding) admitNext(sender);
                      });
    *deciding = false;
    const auto after = waiting_.find(sender);
    if (after != waiting_.end() && after->second.checking) return;
  }
}

void HandsetService::decided(const std::string& sender, Verdict verdict, const std::optional<Credentials>& caller) {
  const auto entry = waiting_.find(sender);
  if (entry == waiting_.end() || entry->second.calls.empty()) return;
  IncomingCall call = std::move(entry->second.calls.front());
  entry->second.calls.pop_front();
  entry->second.checking = false;
  const Action action = actionFor(call.member);
  // RetrieveKithAccount is everyone's: polkit only decides whether its
  // record keeps the tokens.
  if (verdict != Verdict::kAllowed && action != Action::kKithReadSecrets) {
    const std::string id(actionId(action));
    refuse(call,
           verdict == Verdict::kChallenge ? daemonError(VelaDaemonErrorCodeInteractiveAuthorizationRequired,
                                                        "authentication is required for " + id)
                                          : daemonError(VelaDaemonErrorCodeNotAuthorized, "not authorized for " + id),
           caller);
    return;
  }
  perform(call, Caller{sender, action == Action::kKithReadSecrets && verdict == Verdict::kAllowed});
}

void HandsetService::refuse(IncomingCall& call, const VelaError& error, const std::optional<Credentials>& caller) {
  // Refusals carry velad's own reasons (an action, a limit), never what the
  // request held.
  const std::string who = caller ? describeCaller(caller) : printable(call.sender);
  const std::string why = printable(error.failureReason().value_or("refused"));
  if (!call.reply.expectsReply()) {
    // Nobody would hear the refusal; the log says who was turned away.
    log(LogLevel::kNotice, "dropped " + printable(call.member) + " from " + who + ": " + why);
    return;
  }
  log(LogLevel::kDebug, printable(call.member) + " refused to " + who + ": " + why);
  if (const int r = sendAnswer(call, {}, error); r < 0) {
    log(LogLevel::kWarning, "cannot refuse " + printable(call.member) + ": " + std::strerror(-r));
  }
}

void HandsetService::perform(IncomingCall& call, const Caller& caller) {
  const Behavior behavior = testing_ != nullptr ? testing_->behaviorForCall(call.member) : Behavior{};
  if (behavior.delay.count() > 0) {
    // std::function needs a copyable closure; the call (and its reply token)
    // is shared with it instead.
    auto delayed = std::make_shared<IncomingCall>(std::move(call));
    const int r =
        host_.addTimer(behavior.delay, [this, behavior, delayed, caller] { carryOut(behavior, *delayed, caller); });
    if (r >= 0) return;
    log(LogLevel::kWarning, std::string("cannot delay an answer: ") + std::strerror(-r));
    carryOut(behavior, *delayed, caller);
    return;
  }
  carryOut(behavior, call, caller);
}

void HandsetService::carryOut(const Behavior& behavior, IncomingCall& call, const Caller& caller) {
  int r = 0;
  switch (behavior.mode) {
    case BehaviorMode::kExit:
      log(LogLevel::kNotice, "exiting in the middle of " + printable(call.member) + ", as the test asked");
      _exit(0);
    case BehaviorMode::kNever:
      // The token goes with the call: the caller waits into its own timeout.
      return;
    case BehaviorMode::kMalformed:
      r = call.reply.replyWithString("not a dictionary");
      break;
    case BehaviorMode::kError:
      r = sendAnswer(call, {}, behavior.error);
      break;
    case BehaviorMode::kValues:
      r = sendAnswer(call, behavior.values, behavior.error);
      break;
    case BehaviorMode::kNormal:
    case BehaviorMode::kDelay: {
      const Answer answer = actions_.perform(call.member, *call.args, caller);
      if (answer.refusal) {
        if (logs(LogLevel::kDebug)) {
          log(LogLevel::kDebug, printable(call.member) + " refused: " + printable(*answer.refusal));
        }
        r = call.reply.replyError(kInvalidArgsError, *answer.refusal);
      } else {
        r = sendAnswer(call, answer.values, answer.error);
      }
      break;
    }
  }
  if (r < 0) log(LogLevel::kWarning, "cannot answer " + printable(call.member) + ": " + std::strerror(-r));
}

void HandsetService::callerLeft(const std::string& sender) {
  authorizer_.forget(sender);
  actions_.callerLeft(sender);
}

}  // namespace vela::daemon
