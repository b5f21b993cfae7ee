// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <vela/VelaValue.h>

#include "platform/notify/notification_center.h"

namespace vela::bus {
class NamedConnection;
}  // namespace vela::bus

namespace vela::notify {

// A named notification center that other processes post to over the bus.
//
// Notifications arrive on the connections the center listens on, only from
// the owner of the service name those connections talk to (see
// NamedConnection::listenForNotifications). Each one is posted, with the
// center itself as the sender, twice over:
//  - at once, on the connection's thread, through onArrival();
//  - while delivering, later on the main thread (VelaMainThread) through the
//    in-process center given at creation.
// Observers pick it out by sender. Each owner makes its own center: every
// center that listens gets every notification once.
class DistributedCenter : public std::enable_shared_from_this<DistributedCenter> {
 public:
  // A center named `name` (an interface name such as
  // "com.zentrex.VelaNotification.clientnotify") that re-posts through
  // `local`, which must outlive it. Not delivering yet.
  static std::shared_ptr<DistributedCenter> named(std::string name, NotificationCenter& local);

  const std::string& name() const noexcept { return name_; }

  // Starts (again) re-posting what arrives on the main thread. Thread: any.
  void deliverOnMainThread() noexcept;

  // Stops re-posting, including notifications already queued for the main
  // thread. Thread: any.
  void stopDelivering() noexcept;

  bool delivering() const noexcept { return delivering_.load(); }

  // Listens on `connection` from now on; notifications keep reaching this
  // center only while it exists. Harmless to repeat. Thread: any.
  void listenOn(bus::NamedConnection& connection);

  // Where notifications are posted as they arrive, on the connection's
  // thread, whether or not the center delivers on the main thread.
  NotificationCenter& onArrival() noexcept { return onArrival_; }

 private:
  DistributedCenter(std::string name, NotificationCenter& local) : name_(std::move(name)), local_(local) {}

  // On the connection's thread.
  void received(std::string name, VelaDictionary userInfo);

  const std::string name_;
  NotificationCenter& local_;
  NotificationCenter onArrival_;
  std::atomic<bool> delivering_{false};
};

}  // namespace vela::notify
