// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include <vela/VelaNotifySession.h>
#include <vela/VelaSync.h>

#include "protocol/time_limit.h"
#include "session/handset_actions_proxy.h"

// The three ways an operation reaches the daemon. An operation names its
// label, its remote method and its reply values; everything else (the
// per-call slots, the semaphore, the 5-second wait, error 106 and
// velaLastOperationResult) lives here once.
namespace vela::session {

// What the call machinery needs of a session beyond its public API.
struct SessionInternals {
  static const std::shared_ptr<const bus::Reconnect>& reconnect(const VelaNotifySession& session) {
    return session.reconnect_;
  }
};

// The proxy of the session's current connection with the standard error
// handler. A value, so a synchronous call allocates no proxy. `label` names
// the operation and must outlive the proxy's requests (a literal).
HandsetActionsProxy linkProxy(VelaNotifySession& session, std::shared_ptr<VelaSemaphore> semaphore,
                              std::string_view label, VelaProxyErrorHandler inner);

inline void setLastOperationResult(std::intptr_t code) {
  velaLastOperationResult.store(code, std::memory_order_relaxed);
}

using protocol::kReplyTimeLimit;

// What the reply closure leaves for the caller. The caller closes the slots
// when its wait ends, so a reply that arrives later finds them closed and
// drops its values instead of racing the caller.
template <typename... Values>
class ReplySlots {
 public:
  void fill(std::optional<VelaError> error, Values... values) {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    answered_ = true;
    error_ = std::move(error);
    values_ = std::tuple<Values...>(std::move(values)...);
  }

  struct Outcome {
    bool answered = false;
    std::optional<VelaError> error;
    std::tuple<Values...> values;
  };

  Outcome close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    return Outcome{answered_, std::move(error_), std::move(values_)};
  }

 private:
  std::mutex mutex_;
  bool closed_ = false;    // guarded by mutex_
  bool answered_ = false;  // guarded by mutex_
  std::optional<VelaError> error_;
  std::tuple<Values...> values_{};
};

template <typename... Values>
struct SyncResult {
  std::optional<VelaError> error;  // the daemon's, or 106 "timed out"
  std::tuple<Values...> values;    // empty values after a time-out or a failure
};

// The synchronous remote call: send with a reply closure, wait up to 5
// seconds, and leave the error's code in velaLastOperationResult. `send` is
// called as send(proxy, replyClosure) and sends exactly one request.
// A connection failure signals the semaphore without an answer, so it ends
// the wait at once and is reported like a time-out.
template <typename... Values, typename Send>
SyncResult<Values...> callSynchronously(VelaNotifySession& session, std::string_view label, Send&& send) {
  setLastOperationResult(0);
  auto slots = std::make_shared<ReplySlots<Values...>>();
  auto semaphore = VelaSemaphore::create(0);
  HandsetActionsProxy proxy = linkProxy(session, semaphore, label, nullptr);
  // One time limit for the whole call, however the answer comes in.
  const auto deadline = std::chrono::steady_clock::now() + kReplyTimeLimit;
  proxy.waitForAnswersUntil(deadline);
  std::forward<Send>(send)(proxy, [slots, semaphore](Values... values, std::optional<VelaError> error) {
    slots->fill(std::move(error), std::move(values)...);
    semaphore->signal();
  });
  // (void): the slots below say whether an answer came, however the wait ended.
  if (proxy.lastDelivery() == bus::NamedConnection::Delivery::kPending) (void)semaphore->waitUntil(deadline);
  auto outcome = slots->close();
  SyncResult<Values...> result{std::move(outcome.error), std::move(outcome.values)};
  if (!outcome.answered) result.error = session.newErrorForCode(VelaErrorCodeTimedOut, "timed out");
  if (result.error) setLastOperationResult(static_cast<std::intptr_t>(result.error->code()));
  return result;
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
