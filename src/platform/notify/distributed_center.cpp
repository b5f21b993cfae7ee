// SPDX-License-Identifier: MIT
#include "platform/notify/distributed_center.h"

#include <vela/VelaMainThread.h>

#include "platform/bus/named_connection.h"
#include "platform/notify/notification_center.h"

namespace vela::notify {

std::shared_ptr<DistributedCenter> DistributedCenter::named(std::string name, NotificationCenter& local) {
  return std::shared_ptr<DistributedCenter>(new DistributedCenter(std::move(name), local));
}

void DistributedCenter::deliverOnMainThread() noexcept { delivering_.store(true); }

void DistributedCenter::stopDelivering() noexcept { delivering_.store(false); }

void DistributedCenter::listenOn(bus::NamedConnection& connection) {
  // Held weakly: a connection must not keep its listener's center alive.
  connection.listenForNotifications(name_, [weakCenter = weak_from_this()](std::string name, VelaDictionary userInfo) {
    if (auto center = weakCenter.lock()) {
      center->received(std::move(name), std::move(userInfo));
    }
  });
}

void DistributedCenter::received(std::string name, VelaDictionary userInfo) {
  Notification notification{std::move(name), this, std::move(userInfo)};
  onArrival_.post(notification);
  if (!delivering()) return;
  VelaMainThread::perform([weakCenter = weak_from_this(), notification = std::move(notification)] {
    // Looked at again on the main thread: a center stopped or gone since the
    // notification was queued delivers nothing.
    const auto center = weakCenter.lock();
    if (!center || !center->delivering()) return;
    center->local_.post(notification);
  });
}

}  // namespace vela::notify
