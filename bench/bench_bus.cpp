// SPDX-License-Identifier: MIT
#include "bench_bus.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace vela::bench {

BenchBus::BenchBus() {
  const char* given = std::getenv(kBusAddressVariable);
  if (given == nullptr || *given == '\0') {
    private_.emplace();
    address_ = private_->address();
    return;
  }
  address_ = given;
  std::string pattern = (std::filesystem::temp_directory_path() / "vela-bench-XXXXXX").string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("cannot make a temporary directory");
  directory_ = buffer.data();
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
  ::setenv("VELA_PREFERENCES_PATH", (directory_ + "/preferences.sqlite3").c_str(), 1);
  ::setenv("STATE_DIRECTORY", (directory_ + "/state").c_str(), 1);
  ::setenv("VELA_SERVICE_PREFERENCES_PATH", (directory_ + "/state/preferences.sqlite3").c_str(), 1);
}

BenchBus::~BenchBus() {
  if (directory_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string BenchBus::describe() const {
  return private_ ? "a private dbus-daemon" : std::string(kBusAddressVariable) + "=" + address_;
}

std::unique_ptr<BusWithVelad> BusWithVelad::start() {
  std::unique_ptr<BusWithVelad> started;
  try {
    started = std::make_unique<BusWithVelad>();
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "cannot start the bus and velad: %s\n", e.what());
    return nullptr;
  }
  std::printf("Bus: %s\n\n", started->bus.describe().c_str());
  (void)std::fflush(stdout);
  return started;
}

}  // namespace vela::bench
