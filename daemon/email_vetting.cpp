// SPDX-License-Identifier: MIT
#include "email_vetting.h"

#include <cstring>

#include "daemon_errors.h"
#include "log.h"
#include "protocol/names.h"

namespace vela::daemon {

namespace names = protocol;

namespace {

// Good enough for a reference daemon: one "@" with text on both sides and a
// dot in the domain.
bool looksDeliverable(const std::string& account) {
  const auto at = account.find('@');
  if (at == std::string::npos || at == 0 || account.find('@', at + 1) != std::string::npos) return false;
  const std::string domain = account.substr(at + 1);
  const auto dot = domain.find('.');
  return dot != std::string::npos && dot != 0 && dot + 1 < domain.size();
}

}  // namespace

std::vector<VetNotification> EmailVetting::verdictFor(const std::string& account) {
  const bool deliverable = looksDeliverable(account);
  VelaDictionary results{{"account", account}, {"deliverable", deliverable}};
  VelaDictionary finish;
  if (!deliverable) {
    finish.emplace(
        names::kVetErrorKey,
        VelaDictionary{{std::string(names::kVetErrorDomainKey), std::string(kDaemonErrorDomain)},
                       {std::string(names::kVetErrorCodeKey), std::int64_t{VelaDaemonErrorCodeUndeliverableAddress}}});
  }
  return {
      {std::string(names::kVetResultsFoundNotification), {{std::string(names::kVetResultsKey), std::move(results)}}},
      {std::string(names::kVetFinishedNotification), std::move(finish)},
  };
}

void EmailVetting::start(const std::string& requester, const std::string& account) {
  const std::uint64_t generation = nextGeneration_++;
  generations_.insert_or_assign(requester, generation);
  std::vector<VetNotification> notifications = script_ ? script_->notifications : verdictFor(account);
  const std::chrono::milliseconds delay = script_ ? script_->delay : std::chrono::milliseconds(0);
  log(LogLevel::kDebug, "vetting requested by " + printable(requester));
  // From a timer even without a delay: the request's reply goes out first.
  const int r = host_.addTimer(delay, [this, requester, generation, notifications = std::move(notifications)] {
    post(requester, generation, notifications);
  });
  if (r < 0) log(LogLevel::kWarning, std::string("cannot schedule a vetting: ") + std::strerror(-r));
}

void EmailVetting::cancel(const std::string& requester) {
  generations_.erase(requester);
  log(LogLevel::kDebug, "vetting cancelled by " + printable(requester));
}

void EmailVetting::post(const std::string& requester, std::uint64_t generation,
                        const std::vector<VetNotification>& notifications) {
  const auto current = generations_.find(requester);
  if (current == generations_.end() || current->second != generation) return;
  for (const VetNotification& notification : notifications) {
    const int r =
        host_.emitNotification(protocol::kClientNotifyCenter, notification.name, notification.userInfo, requester);
    if (r < 0) {
      log(LogLevel::kWarning, "cannot post " + printable(notification.name) + ": " + std::strerror(-r));
    }
    if (notification.name == names::kVetFinishedNotification) {
      generations_.erase(requester);
      return;
    }
  }
}

}  // namespace vela::daemon
