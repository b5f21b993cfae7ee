// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
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
  static ObserverRegistry& observers(const VelaNotifySession& session) { return *session.observers_; }
  static VelaMainThread::Executor completionExecutor(const VelaNotifySession& session) {
    std::lock_guard lock(session.fieldsMutex_);
    return session.completionExecutor_;
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

// An error in the library's domain with `message` as its failure reason.
VelaError libraryError(std::int32_t code, std::string_view message);

// What an operation reports when no answer came in time, the request could
// not be carried or the reply did not decode.
VelaError timedOutError();

// A reply made of nothing but the time-out error.
template <typename Reply>
Reply timedOutReply() {
  Reply reply;
  reply.error = timedOutError();
  return reply;
}

// Runs completions through the session's completion executor (the main
// thread unless the host chose another), each only if the session still
// exists when it comes to run. Taken when a call starts, so it outlives the
// session.
class Completer {
 public:
  explicit Completer(const VelaNotifySession& session);
  void operator()(std::function<void()> completion) const;

 private:
  std::shared_ptr<CompletionGate> gate_;
  VelaMainThread::Executor executor_;
};

// The synchronous remote call: send `call` with `args`, wait for the answer
// until one time limit from now, and leave the error's code in
// velaLastOperationResult. No answer in time, a connection failure and an
// undecodable reply all end as 106 "timed out".
template <typename Call, typename... Args>
[[gnu::hot]] typename Call::Reply callSynchronously(VelaNotifySession& session, std::string_view label,
                                                    const Call& call, Args&&... args) {
  (void)label;  // names the operation for whoever reads the code; no effect
  setLastOperationResult(0);
  const auto deadline = std::chrono::steady_clock::now() + kReplyTimeLimit;
  const std::shared_ptr<bus::NamedConnection> connection = session.currentLinkConnection();
  auto decoder = call.decoder();
  const bus::NamedConnection::CallOutcome outcome = connection->call(
      *call.member, call.encode(std::forward<Args>(args)...), decoder, SessionInternals::reconnect(session), deadline);
  std::optional<typename Call::Reply> decoded =
      outcome.replied ? std::move(decoder).result() : std::optional<typename Call::Reply>();
  if (!decoded) decoded = timedOutReply<typename Call::Reply>();
  if (decoded->error) setLastOperationResult(static_cast<std::intptr_t>(decoded->error->code()));
  return std::move(*decoded);
}

// The non-blocking twin of callSynchronously: sends `call` with `args` and
// returns at once. `finish` later gets what callSynchronously would have
// returned, exactly once, through the session's Completer; the connection
// keeps the deadline, one time limit from now. velaLastOperationResult is
// left alone.
template <typename Call, typename Finish, typename... Args>
void callWithoutBlocking(VelaNotifySession& session, const Call& call, Finish finish, Args&&... args) {
  using Reply = typename Call::Reply;
  const auto deadline = std::chrono::steady_clock::now() + kReplyTimeLimit;
  // Shared by the two handlers, of which exactly one runs.
  auto deliver = std::make_shared<const std::function<void(Reply)>>(
      [completer = Completer(session), finish = std::move(finish)](Reply reply) {
        completer([finish, reply = std::move(reply)]() mutable { finish(std::move(reply)); });
      });
  const Call* described = &call;
  session.currentLinkConnection()->callMethod(
      *call.member, call.encode(std::forward<Args>(args)...),
      [deliver, described](VelaDictionary answer) {
        auto decoded = described->decode(answer);
        (*deliver)(decoded ? std::move(*decoded) : timedOutReply<Reply>());
      },
      [deliver](const VelaError& /*transport*/) { (*deliver)(timedOutReply<Reply>()); },
      SessionInternals::reconnect(session), deadline);
}

// Completions that hand a twin's caller the error alone.
template <typename Completion>
auto errorTo(Completion completion) {
  return [completion = std::move(completion)](auto reply) {
    if (completion) completion(std::move(reply.error));
  };
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
