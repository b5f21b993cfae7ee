// SPDX-License-Identifier: MIT
// Making and destroying sessions; each test is a fresh process.
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include <vela/VelaNotification.h>

#include "private_bus.h"

namespace vela::testing {
namespace {

class RecordingDelegate : public VelaNotifySessionDelegate {};

// Only the bus and velad: the session itself is what these tests make.
class ANewProcess : public ::testing::Test {
 protected:
  PrivateBus bus_;
  VeladProcess velad_;
};

TEST_F(ANewProcess, SharesOneSessionAcrossThreads) {
  auto first = std::async(std::launch::async, [] { return VelaNotifySession::sharedInstance(); });
  auto second = std::async(std::launch::async, [] { return VelaNotifySession::sharedInstance(); });
  const auto a = first.get();
  EXPECT_EQ(a, second.get());
  EXPECT_EQ(a, VelaNotifySession::sharedInstance());
  EXPECT_TRUE(a->locusDeviceId());
}

TEST_F(ANewProcess, WorksWhenItsFirstSessionHasADelegate) {
  // No init() ran before: the connection-creation queue is made on demand.
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = VelaNotifySession::initWithDelegate(delegate);
  EXPECT_EQ(session->delegate(), delegate);
  EXPECT_TRUE(session->locusDeviceId());
  EXPECT_EQ(velaLastOperationResult.load(), 0);
}

TEST_F(ANewProcess, DoesNotKeepTheDelegateAlive) {
  auto delegate = std::make_shared<RecordingDelegate>();
  std::weak_ptr<RecordingDelegate> watch = delegate;
  auto session = VelaNotifySession::initWithDelegate(delegate);
  delegate.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(session->delegate(), nullptr);
}

TEST_F(ANewProcess, KeepsSessionsWorkingWhenALaterSessionReplacesTheCreationQueue) {
  auto older = VelaNotifySession::init();
  auto newer = VelaNotifySession::init();
  EXPECT_TRUE(older->locusDeviceId());
  EXPECT_TRUE(newer->locusDeviceId());
  EXPECT_NE(older->currentLinkConnection(), newer->currentLinkConnection());
}

TEST_F(ANewProcess, MakesOneConnectionForManyRacingThreads) {
  auto session = VelaNotifySession::init();
  std::vector<std::future<std::shared_ptr<bus::NamedConnection>>> racers;
  for (int i = 0; i < 8; ++i) {
    racers.push_back(std::async(std::launch::async, [&] { return session->currentLinkConnection(); }));
  }
  const auto first = racers.front().get();
  for (std::size_t i = 1; i < racers.size(); ++i) EXPECT_EQ(racers[i].get(), first);
  EXPECT_EQ(session->linkConnection(), first);
}

TEST_F(ANewProcess, DestroysAConnectionOnlyWhenAsked) {
  auto session = VelaNotifySession::init();
  session->_destroyLinkConnection();  // never connected: nothing happens
  EXPECT_EQ(session->linkConnection(), nullptr);

  const auto connection = session->currentLinkConnection();
  EXPECT_EQ(session->currentLinkConnection(), connection);
  session->_destroyLinkConnection();
  EXPECT_EQ(session->linkConnection(), nullptr);
  EXPECT_TRUE(session->locusDeviceId()) << "the next operation connects again";
}

TEST_F(ANewProcess, CanDestroyASessionFromInsideItsOwnCompletion) {
  auto session = VelaNotifySession::init();
  std::promise<void> done;
  auto* raw = session.get();
  // The completion holds the only reference and drops it on the
  // connection's thread.
  raw->locusStateWithCompletion([keep = std::move(session), &done](std::int32_t, auto) mutable {
    keep.reset();
    done.set_value();
  });
  EXPECT_EQ(done.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

}  // namespace
}  // namespace vela::testing
