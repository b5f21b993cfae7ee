// SPDX-License-Identifier: MIT
#include "session/remote_call.h"

#include <chrono>

std::atomic<std::intptr_t> velaLastOperationResult{0};  // NOLINT(*-avoid-non-const-global-variables)

namespace vela::session {

VelaError libraryError(std::int32_t code, std::string_view message) {
  return VelaError(std::string(kVelaErrorDomain), code,
                   VelaDictionary{{std::string(kVelaErrorFailureReasonKey), std::string(message)}});
}

VelaError timedOutError() { return libraryError(VelaErrorCodeTimedOut, "timed out"); }

Completer::Completer(const VelaNotifySession& session)
    : gate_(SessionInternals::completions(session)), executor_(SessionInternals::completionExecutor(session)) {
  if (!executor_) executor_ = &VelaMainThread::perform;
}

void Completer::operator()(std::function<void()> completion) const {
  try {
    executor_([gate = gate_, completion = std::move(completion)] { gate->run(completion); });
  } catch (...) {  // NOLINT(bugprone-empty-catch): an executor that throws has refused the completion
  }
}

HandsetActionsProxy linkProxy(VelaNotifySession& session, std::shared_ptr<VelaSemaphore> semaphore,
                              std::string_view label, VelaProxyErrorHandler inner) {
  return {session.currentLinkConnection(), standardErrorHandler(label, std::move(inner), std::move(semaphore)),
          SessionInternals::reconnect(session)};
}

}  // namespace vela::session

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void __VELA_WAIT_SYNC(std::shared_ptr<VelaSemaphore> semaphore) {
  // (void): whether it was signalled is the caller's to learn from its own reply state.
  if (semaphore) (void)semaphore->waitUntil(std::chrono::steady_clock::now() + vela::session::kReplyTimeLimit);
  // The caller's reference ends with this call.
}

void __VELA_SIGNAL_SYNC(const std::shared_ptr<VelaSemaphore>& semaphore) {
  if (semaphore) semaphore->signal();
}

std::shared_ptr<VelaNotificationHandsetActions> __VELA_LINK_OBJ(const std::shared_ptr<VelaNotifySession>& session,
                                                                std::shared_ptr<VelaSemaphore> semaphore,
                                                                std::string_view label,
                                                                VelaProxyErrorHandler innerHandler) {
  if (!session) return nullptr;
  return std::make_shared<vela::session::HandsetActionsProxy>(
      vela::session::linkProxy(*session, std::move(semaphore), label, std::move(innerHandler)));
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
