// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include <vela/VelaNotifySession.h>
#include <vela/VelaSync.h>

#include "protocol/time_limit.h"
#include "session/completion_gate.h"
#include "session/handset_actions_proxy.h"
#include "session/member_calls.h"

// The three ways an operation reaches the daemon. An operation names its
// label, its member call and its arguments; everything else (the deadline,
// error 106 and velaLastOperationResult) lives here once.
namespace vela::session {

// What the call machinery needs of a session beyond its public API.
struct SessionInternals {
  static const std::shared_ptr<const bus::Reconnect>& reconnect(const VelaNotifySession& session) {
    return session.reconnect_;
  }
  static const std::shared_ptr<CompletionGate>& completions(const VelaNotifySession& session) {
    return session.completions_;
  }
};

// The proxy of the session's current connection with the standard error
// handler, for the asynchronous and fire-and-forget variants (and the
// published __VELA_LINK_OBJ). `label` only names the operation.
HandsetActionsProxy linkProxy(VelaNotifySession& session, std::shared_ptr<VelaSemaphore> semaphore,
                              std::string_view label, VelaProxyErrorHandler inner);

inline void setLastOperationResult(std::intptr_t code) {
  velaLastOperationResult.store(code, std::memory_order_relaxed);
}

using protocol::kReplyTimeLimit;

// The synchronous remote call: send `call` with `args`, wait for the answer
// until one time limit from now, and leave the error's code in
// velaLastOperationResult. No answer in time, a connection failure and an
// undecodable reply all end as 106 "timed out".
template <typename Call, typename... Args>
typename Call::Reply callSynchronously(VelaNotifySession& session, std::string_view label, const Call& call,
                                       Args&&... args) {
  (void)label;  // names the operation for whoever reads the code; no effect
  setLastOperationResult(0);
  const auto deadline = std::chrono::steady_clock::now() + kReplyTimeLimit;
  const std::shared_ptr<bus::NamedConnection> connection = session.currentLinkConnection();
  bus::NamedConnection::CallOutcome outcome = connection->call(*call.member, call.encode(std::forward<Args>(args)...),
                                                               SessionInternals::reconnect(session), deadline);
  std::optional<typename Call::Reply> decoded;
  if (outcome.reply) decoded = call.decode(*outcome.reply);
  if (!decoded) {
    decoded.emplace();
    decoded->error = session.newErrorForCode(VelaErrorCodeTimedOut, "timed out");
  }
  if (decoded->error) setLastOperationResult(static_cast<std::intptr_t>(decoded->error->code()));
  return std::move(*decoded);
}

// The asynchronous variant: no wait and no time-out. `onFailure` runs with the
// transport error when the request cannot be carried; the reply closure that
// `send` passes runs with the daemon's answer. velaLastOperationResult is
// reset and never set from the outcome.
template <typename Send>
void callAsynchronously(VelaNotifySession& session, std::string_view label, VelaProxyErrorHandler onFailure,
                        Send&& send) {
  setLastOperationResult(0);
  HandsetActionsProxy proxy = linkProxy(session, nullptr, label, std::move(onFailure));
  std::forward<Send>(send)(proxy);
}

// Fire-and-forget: the request is sent without asking for an answer; failures
// are dropped. `send` is called as send(proxy) and passes an empty reply.
enum class ResetsLastResult { kYes, kNo };

template <typename Send>
void sendWithoutReply(VelaNotifySession& session, std::string_view label, Send&& send,
                      ResetsLastResult reset = ResetsLastResult::kYes) {
  if (reset == ResetsLastResult::kYes) setLastOperationResult(0);
  HandsetActionsProxy proxy = linkProxy(session, nullptr, label, nullptr);
  std::forward<Send>(send)(proxy);
}

}  // namespace vela::session
