// SPDX-License-Identifier: MIT
#include <vela/VelaMainThread.h>
#include <vela/VelaNotifySession.h>

#include "platform/notify/distributed_center.h"
#include "platform/notify/notification_center.h"
#include "protocol/names.h"
#include "session/observer_registry.h"
#include "session/remote_call.h"

namespace {

using vela::notify::DistributedCenter;
using vela::notify::Notification;
using vela::notify::NotificationCenter;
namespace names = vela::protocol;

const VelaValue* entry(const VelaDictionary& dictionary, std::string_view key) {
  const auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

// The error that ended a vetting, rebuilt from its description: the domain
// (the library's when absent) and the code only, no failure reason.
[[nodiscard]] std::optional<VelaError> finishError(const VelaDictionary& userInfo) {
  const VelaValue* described = entry(userInfo, names::kVetErrorKey);
  if (described == nullptr) return std::nullopt;
  std::string domain(kVelaErrorDomain);
  std::int64_t code = 0;
  if (const auto* fields = described->asDictionary()) {
    if (const VelaValue* given = entry(*fields, names::kVetErrorDomainKey); given && given->asString()) {
      domain = *given->asString();
    }
    // A number as the daemon may have typed it; anything else counts as 0.
    if (const VelaValue* given = entry(*fields, names::kVetErrorCodeKey)) code = given->numberAsInteger().value_or(0);
  }
  return VelaError(std::move(domain), code, VelaDictionary{});
}

}  // namespace

std::optional<VelaError> VelaNotifySession::vetEmailAccount(std::optional<std::string> account) {
  vela::session::setLastOperationResult(0);
  if (!account) {
    vela::session::setLastOperationResult(VelaErrorCodeAccountIsNil);
    return newErrorForCode(VelaErrorCodeAccountIsNil, "account is nil");
  }
  startVetListening();
  return vela::session::callSynchronously(*this, "vetEmailAccount", vela::session::calls::kVetEmailAccount,
                                          std::move(account))
      .error;
}

void VelaNotifySession::vetEmailAccountAsync(std::optional<std::string> account, ErrorCompletion completion) {
  if (!account) {
    vela::session::Completer completer(*this);
    completer(
        [completion = std::move(completion), error = newErrorForCode(VelaErrorCodeAccountIsNil, "account is nil")] {
          if (completion) completion(error);
        });
    return;
  }
  startVetListening();
  vela::session::callWithoutBlocking(*this, vela::session::calls::kVetEmailAccount,
                                     vela::session::errorTo(std::move(completion)), std::move(account));
}

void VelaNotifySession::startVetListening() {
  std::shared_ptr<DistributedCenter> vetCenter = centerMadeIfNeeded();
  vetCenter->deliverOnMainThread();
  vetListening_.store(true);
  // Listening starts before the request leaves, so no result can come first.
  vetCenter->listenOn(*currentLinkConnection());
  NotificationCenter& local = NotificationCenter::defaultCenter();
  const std::weak_ptr<VelaNotifySession> weakSelf = weak_from_this();
  local.addObserver(shared_from_this(), std::string(names::kVetResultsFoundNotification), vetCenter.get(),
                    [weakSelf](const Notification& notification) {
                      if (auto self = weakSelf.lock()) self->_vetResultReceived(notification);
                    });
  local.addObserver(shared_from_this(), std::string(names::kVetFinishedNotification), vetCenter.get(),
                    [weakSelf](const Notification& notification) {
                      if (auto self = weakSelf.lock()) self->_vetFinished(notification);
                    });
}

std::optional<VelaError> VelaNotifySession::cancelEmailVet() {
  vela::session::setLastOperationResult(0);
  _stopVettingNotifications();
  return vela::session::callSynchronously(*this, "cancelEmailVet", vela::session::calls::kCancelEmailVet).error;
}

void VelaNotifySession::cancelEmailVetAsync(ErrorCompletion completion) {
  _stopVettingNotifications();
  vela::session::callWithoutBlocking(*this, vela::session::calls::kCancelEmailVet,
                                     vela::session::errorTo(std::move(completion)));
}

void VelaNotifySession::_vetResultReceived(const Notification& notification) const {
  auto receiver = delegate();
  if (!receiver) return;
  std::optional<VelaValue> results;
  if (const VelaValue* given = entry(notification.userInfo, names::kVetResultsKey)) results = *given;
  VelaMainThread::perform(
      [receiver = std::move(receiver), results = std::move(results)] { receiver->vettingResultsDidArrive(results); });
}

void VelaNotifySession::_vetFinished(const Notification& notification) {
  if (auto receiver = delegate()) {
    VelaMainThread::perform([receiver = std::move(receiver), error = finishError(notification.userInfo)] {
      receiver->vettingDidFinishWithError(error);
    });
  }
  _stopVettingNotifications();
}

void VelaNotifySession::_stopVettingNotifications() {
  const auto vetCenter = center();
  // Observers exist only once a vetting has made the center.
  if (!vetCenter) return;
  vetListening_.store(false);
  NotificationCenter& local = NotificationCenter::defaultCenter();
  local.removeObserver(this, names::kVetResultsFoundNotification, vetCenter.get());
  local.removeObserver(this, names::kVetFinishedNotification, vetCenter.get());
}

std::shared_ptr<DistributedCenter> VelaNotifySession::centerMadeIfNeeded() {
  // The session's one center of that name, which the host's observers of
  // it share: a connection carries one listener per center.
  auto vetCenter = vela::session::SessionInternals::observers(*this).center(names::kClientNotifyCenter);
  std::lock_guard lock(fieldsMutex_);
  if (!center_) center_ = std::move(vetCenter);
  return center_;
}
