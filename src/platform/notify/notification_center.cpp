// SPDX-License-Identifier: MIT
#include "platform/notify/notification_center.h"

#include <algorithm>
#include <utility>

namespace vela::notify {
namespace {

// How many handler calls, of any center, the current thread is inside. A
// removal made from inside one must not wait for other handlers: that other
// handler may be waiting to remove this one.
thread_local int handlerDepth = 0;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

}  // namespace

struct NotificationCenter::Registration {
  std::weak_ptr<const void> observer;
  const void* observerAddress;
  std::string name;
  const void* sender;
  Handler handler;
  bool removed = false;  // guarded by the center's mutex_
  int running = 0;       // guarded by the center's mutex_: calls of handler under way
};

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed, so that observers may still be removed from static
  // destructors.
  static auto* const center = new NotificationCenter();  // NOLINT(*-owning-memory,*-avoid-non-const-global-variables)
  return *center;
}

template <typename Predicate>
NotificationCenter::Registrations NotificationCenter::takeOut(Predicate matches) {
  // Expired registrations leave whenever the list is walked anyway.
  Registrations taken;
  auto kept = registrations_.begin();
  for (auto& registration : registrations_) {
    if (matches(*registration) || registration->observer.expired()) {
      registration->removed = true;
      taken.push_back(std::move(registration));
    } else {
      if (&*kept != &registration) *kept = std::move(registration);
      ++kept;
    }
  }
  registrations_.erase(kept, registrations_.end());
  return taken;
}

void NotificationCenter::awaitRunningCalls(std::unique_lock<std::mutex>& lock, const Registrations& removed) {
  if (handlerDepth > 0) return;
  idle_.wait(lock, [&removed] {
    return std::all_of(removed.begin(), removed.end(),
                       [](const std::shared_ptr<Registration>& registration) { return registration->running == 0; });
  });
}

void NotificationCenter::addObserver(const std::shared_ptr<const void>& observer, std::string name, const void* sender,
                                     Handler handler) {
  if (!observer || !handler) return;
  auto registration = std::make_shared<Registration>(
      Registration{observer, observer.get(), std::move(name), sender, std::move(handler)});
  // Declared before the lock so that dropped handlers, and whatever they
  // captured, are destroyed after it is released.
  Registrations expired;
  std::lock_guard lock(mutex_);
  expired = takeOut([](const Registration&) { return false; });
  registrations_.push_back(std::move(registration));
}

void NotificationCenter::removeObserver(const void* observer, std::string_view name, const void* sender) {
  Registrations removed;
  std::unique_lock lock(mutex_);
  removed = takeOut([&](const Registration& registration) {
    return registration.observerAddress == observer && registration.name == name && registration.sender == sender;
  });
  awaitRunningCalls(lock, removed);
}

void NotificationCenter::removeObserver(const void* observer) {
  Registrations removed;
  std::unique_lock lock(mutex_);
  removed = takeOut([&](const Registration& registration) { return registration.observerAddress == observer; });
  awaitRunningCalls(lock, removed);
}

void NotificationCenter::post(const Notification& notification) {
  Registrations expired;
  Registrations matching;
  {
    std::lock_guard lock(mutex_);
    expired = takeOut([](const Registration&) { return false; });
    for (const auto& registration : registrations_) {
      if (registration->name == notification.name &&
          (registration->sender == nullptr || registration->sender == notification.sender)) {
        matching.push_back(registration);
      }
    }
  }
  expired.clear();

  for (const auto& registration : matching) {
    // Holds the observer for the call; released after the lock, since its
    // destructor may come back into the center.
    std::shared_ptr<const void> observer;
    {
      std::lock_guard lock(mutex_);
      if (registration->removed) continue;
      observer = registration->observer.lock();
      // Gone since the snapshot: dropped on the next walk of the list.
      if (!observer) continue;
      ++registration->running;
    }
    ++handlerDepth;
    try {
      registration->handler(notification);
    } catch (...) {  // NOLINT(bugprone-empty-catch): one failing observer must not starve the others
    }
    --handlerDepth;
    std::lock_guard lock(mutex_);
    if (--registration->running == 0 && registration->removed) idle_.notify_all();
  }
}

std::size_t NotificationCenter::observerCount() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      registrations_.begin(), registrations_.end(),
      [](const std::shared_ptr<Registration>& registration) { return !registration->observer.expired(); }));
}

}  // namespace vela::notify
