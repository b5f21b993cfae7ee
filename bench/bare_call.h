// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>

#include <systemd/sd-bus.h>

// The call the benchmarks hold the library up against: the same request made
// with nothing but sd-bus, decoded as far as the library's caller gets it.
namespace vela::bench {

// Reads "deviceId" out of an a{sv} reply, skipping every other entry: the part
// of decoding that the caller of the library gets back.
std::optional<std::string> readDeviceId(sd_bus_message* reply);

// A bus connection of its own, as a client without the library would hold.
// Like any sd-bus object it belongs to one thread at a time.
class BareConnection {
 public:
  BareConnection();
  ~BareConnection();
  BareConnection(const BareConnection&) = delete;
  BareConnection& operator=(const BareConnection&) = delete;
  BareConnection(BareConnection&&) = delete;
  BareConnection& operator=(BareConnection&&) = delete;

  bool open() const { return bus_ != nullptr; }
  const std::string& whyNot() const { return whyNot_; }

  // The blocking call with an empty a{sv}, and the device id out of its reply.
  std::optional<std::string> locusDeviceId();

 private:
  sd_bus* bus_ = nullptr;
  std::string whyNot_;
};

}  // namespace vela::bench
