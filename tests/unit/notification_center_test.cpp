// SPDX-License-Identifier: MIT
#include "platform/notify/notification_center.h"

#include <atomic>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using vela::notify::Notification;
using vela::notify::NotificationCenter;
using Calls = std::vector<std::string>;

class ANotificationCenter : public ::testing::Test {
 protected:
  static std::shared_ptr<const void> newObserver() { return std::make_shared<int>(0); }
  void post(const char* name, const void* sender = nullptr) { center_.post({name, sender, {}}); }
  NotificationCenter::Handler record(std::string tag) {
    return [this, tag = std::move(tag)](const Notification&) { calls_.push_back(tag); };
  }

  NotificationCenter center_;
  Calls calls_;
};

TEST_F(ANotificationCenter, MatchesNameAndSenderAndRunsDuplicatesTwice) {
  const int a = 0;
  const int b = 0;
  const auto observer = newObserver();
  center_.addObserver(observer, "n", &a, record("a"));
  center_.addObserver(observer, "n", nullptr, record("any"));
  center_.addObserver(observer, "n", nullptr, record("any"));
  post("n", &a);
  post("n", &b);
  post("other", &a);
  EXPECT_EQ(calls_, (Calls{"a", "any", "any", "any", "any"}));

  // Removal matches the sender exactly: nullptr is not a wildcard there.
  center_.removeObserver(observer.get(), "n", &a);
  EXPECT_EQ(center_.observerCount(), 2u);
  center_.removeObserver(observer.get(), "n", nullptr);
  EXPECT_EQ(center_.observerCount(), 0u);
}

TEST_F(ANotificationCenter, LetsHandlersRemoveAddAndPostDuringDelivery) {
  const auto first = newObserver();
  const auto second = newObserver();
  center_.addObserver(first, "n", nullptr, [&](const Notification&) {
    calls_.push_back("first");
    center_.removeObserver(first.get());
    center_.removeObserver(second.get(), "n", nullptr);
    center_.addObserver(second, "n", nullptr, record("added"));
    post("nested");
  });
  center_.addObserver(second, "n", nullptr, record("removed before its turn"));
  center_.addObserver(second, "nested", nullptr, record("nested"));
  post("n");
  EXPECT_EQ(calls_, (Calls{"first", "nested"}));
  post("n");
  EXPECT_EQ(calls_, (Calls{"first", "nested", "added"}));
}

TEST_F(ANotificationCenter, DropsExpiredObserversAndSurvivesThrowingHandlers) {
  auto gone = newObserver();
  const auto captured = std::make_shared<int>(0);
  center_.addObserver(gone, "n", nullptr,
                      [captured](const Notification&) { ADD_FAILURE() << "expired observer ran " << *captured; });
  const auto observer = newObserver();
  center_.addObserver(observer, "n", nullptr, [](const Notification&) { throw std::runtime_error("dropped"); });
  center_.addObserver(observer, "n", nullptr, record("after"));
  gone.reset();
  EXPECT_EQ(center_.observerCount(), 2u);
  post("n");
  EXPECT_EQ(calls_, (Calls{"after"}));
  EXPECT_EQ(captured.use_count(), 1) << "the expired registration's handler is still held";
}

TEST_F(ANotificationCenter, RemovedHandlerIsNotRunningOnceRemoveReturns) {
  std::vector<std::jthread> posters;
  for (int i = 0; i < 3; ++i) {
    posters.emplace_back([this](const std::stop_token& token) {
      while (!token.stop_requested()) post("n");
    });
  }
  std::atomic<int> late{0};
  for (int round = 0; round < 100; ++round) {
    // Round-local on purpose: a handler still running after removal would
    // also touch them after they are gone.
    std::atomic<bool> removed{false};
    std::atomic<int> calls{0};
    const auto observer = newObserver();
    center_.addObserver(observer, "n", nullptr, [&](const Notification&) {
      if (removed.load()) late.fetch_add(1);
      calls.fetch_add(1);
      calls.notify_all();
      std::this_thread::yield();
      if (removed.load()) late.fetch_add(1);
    });
    calls.wait(0);
    center_.removeObserver(observer.get(), "n", nullptr);
    removed = true;
  }
  posters.clear();
  EXPECT_EQ(late.load(), 0);
}

TEST_F(ANotificationCenter, HandlersOnTwoThreadsMayRemoveEachOther) {
  // Removal from inside a handler does not wait for the other thread's
  // handler; if it did, these two would wait for each other forever.
  const auto a = newObserver();
  const auto b = newObserver();
  std::latch bothRunning(2);
  center_.addObserver(a, "a", nullptr, [&](const Notification&) {
    bothRunning.arrive_and_wait();
    center_.removeObserver(b.get());
  });
  center_.addObserver(b, "b", nullptr, [&](const Notification&) {
    bothRunning.arrive_and_wait();
    center_.removeObserver(a.get());
  });
  {
    std::jthread postA([&] { post("a"); });
    std::jthread postB([&] { post("b"); });
  }
  EXPECT_EQ(center_.observerCount(), 0u);
}

}  // namespace
