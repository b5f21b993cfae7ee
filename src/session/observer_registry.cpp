// SPDX-License-Identifier: MIT
#include "session/observer_registry.h"

#include <utility>

namespace vela::session {

using notify::DistributedCenter;
using notify::Notification;
using notify::NotificationCenter;

std::shared_ptr<DistributedCenter> ObserverRegistry::center(std::string_view name) {
  std::lock_guard lock(mutex_);
  auto found = centers_.find(name);
  if (found == centers_.end()) {
    found = centers_
                .emplace(std::string(name),
                         DistributedCenter::named(std::string(name), NotificationCenter::defaultCenter()))
                .first;
  }
  return found->second;
}

std::vector<std::shared_ptr<DistributedCenter>> ObserverRegistry::centers() const {
  std::vector<std::shared_ptr<DistributedCenter>> all;
  std::lock_guard lock(mutex_);
  all.reserve(centers_.size());
  for (const auto& [name, center] : centers_) all.push_back(center);
  return all;
}

NotificationCenter& ObserverRegistry::hub(DistributedCenter& center, Thread thread) {
  return thread == Thread::kMainThread ? NotificationCenter::defaultCenter() : center.onArrival();
}

ObserverRegistry::Token ObserverRegistry::add(const std::shared_ptr<DistributedCenter>& center, const std::string& name,
                                              Thread thread, VelaNotifySession::NotificationHandler handler) {
  auto key = std::make_shared<const int>(0);
  hub(*center, thread)
      .addObserver(key, name, center.get(), [handler = std::move(handler)](const Notification& notification) {
        handler(notification.name, notification.userInfo);
      });
  if (thread == Thread::kMainThread) center->deliverOnMainThread();
  std::lock_guard lock(mutex_);
  const Token token = ++lastToken_;
  entries_.emplace(token, Entry{center, thread, std::move(key)});
  return token;
}

bool ObserverRegistry::remove(Token token) {
  Entry entry;
  {
    std::lock_guard lock(mutex_);
    const auto found = entries_.find(token);
    if (found == entries_.end()) return false;
    entry = std::move(found->second);
    entries_.erase(found);
  }
  // Outside the lock: the removal may wait for a running handler, which
  // may itself be adding or removing observers.
  hub(*entry.center, entry.thread).removeObserver(entry.key.get());
  return true;
}

bool ObserverRegistry::empty() const {
  std::lock_guard lock(mutex_);
  return entries_.empty();
}

}  // namespace vela::session
