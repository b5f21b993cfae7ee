// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <vela/VelaValue.h>

#include "platform/bus/bus_names.h"
#include "private_bus.h"
#include "protocol/names.h"
#include "test_bus_client.h"
#include "velad_control.h"

namespace vela::testing {

inline const bus::MethodTarget kHandsetActions{std::string(protocol::kServiceName), std::string(protocol::kObjectPath),
                                               std::string(protocol::kHandsetActionsInterface)};

// A fresh private bus and velad --testing for each test, a client connection
// to call HandsetActions with, and a second connection driving the Testing
// interface.
class AVelad : public ::testing::Test {
 protected:
  void SetUp() override {
    bus_.emplace();
    velad_.emplace();
    std::string whyNot;
    client_ = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
    ASSERT_NE(client_, nullptr) << whyNot;
    control_.emplace();
    ASSERT_TRUE(control_->connected()) << control_->lastFailure();
  }

  bus::CallResult call(std::string_view member, const VelaDictionary& args = {},
                       std::chrono::milliseconds timeout = bus::TestBusClient::kDefaultTimeout) {
    return client_->call(kHandsetActions, member, args, timeout);
  }

  // The reply of a call that must succeed with an a{sv}; empty on failure.
  VelaDictionary reply(std::string_view member, const VelaDictionary& args = {}) {
    bus::CallResult result = call(member, args);
    EXPECT_FALSE(result.failed()) << member << ": " << result.errorName << ": " << result.errorMessage;
    EXPECT_TRUE(result.reply.has_value()) << member << " answered with signature " << result.signature;
    return result.reply.value_or(VelaDictionary{});
  }

  // Declared in teardown order reversed: connections close before velad
  // stops, and velad before its bus.
  std::optional<PrivateBus> bus_;
  std::optional<VeladProcess> velad_;
  std::unique_ptr<bus::TestBusClient> client_;
  std::optional<VeladControl> control_;
};

}  // namespace vela::testing
