// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "private_bus.h"

namespace vela::bench {

// The name of the variable that points the benchmarks at a bus of one's own.
inline constexpr const char* kBusAddressVariable = "VELA_BENCH_BUS_ADDRESS";

// Where a benchmark's velad and clients meet: the bus whose address is in
// VELA_BENCH_BUS_ADDRESS when that is set (any D-Bus broker: dbus-daemon,
// dbus-broker), else a private dbus-daemon started here. Either way the
// constructor points DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS
// at it, and VELA_PREFERENCES_PATH, velad's STATE_DIRECTORY and
// VELA_SERVICE_PREFERENCES_PATH (the service's store in that state directory)
// into a fresh temporary directory: construct it before the library starts any
// thread. A bus given from outside must let velad own its name and every
// client call it.
class BenchBus {
 public:
  // Throws std::runtime_error when the private bus does not start or the
  // temporary directory cannot be made.
  BenchBus();
  ~BenchBus();
  BenchBus(const BenchBus&) = delete;
  BenchBus& operator=(const BenchBus&) = delete;
  BenchBus(BenchBus&&) = delete;
  BenchBus& operator=(BenchBus&&) = delete;

  const std::string& address() const noexcept { return address_; }
  // For the report: "a private dbus-daemon" or the address given.
  std::string describe() const;

 private:
  std::optional<vela::testing::PrivateBus> private_;
  std::string address_;
  std::string directory_;  // only when the bus is given: the preference stores'
};

// What every benchmark's clients meet: the bus, and velad --testing on it.
struct BusWithVelad {
  BenchBus bus;  // first: it exports the bus address velad and the clients use
  vela::testing::VeladProcess velad;

  // Starts both and says on stdout which bus; nullptr, with the reason on
  // stderr, when either does not start.
  static std::unique_ptr<BusWithVelad> start();
};

}  // namespace vela::bench
