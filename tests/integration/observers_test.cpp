// SPDX-License-Identifier: MIT
// A host observing the daemon's notifications: what it sees, from whom, on
// which thread, across restarts, and how it stops.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "protocol/locus_state.h"
#include "protocol/names.h"
#include "session_fixture.h"
#include "test_bus_client.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using Thread = VelaNotifySession::ObserverThread;
using Token = VelaNotifySession::ObserverToken;

constexpr std::string_view kMarker = "test.marker";

struct Seen {
  std::string name;
  VelaDictionary userInfo;
  Thread thread;
  bool onMainThread;
};

class AnObserver : public ASessionWithVelad {
 protected:
  // Observes `name`, recording what arrives; each arrival also ends the
  // main loop, so await() runs it rather than sleeping.
  Token observe(std::string_view name, Thread thread) {
    const Token token = session_->addObserver(
        kVelaClientNotifyCenter, name, thread, [this, thread](const std::string& seenName, const VelaDictionary& info) {
          {
            std::lock_guard lock(mutex_);
            seen_.push_back(Seen{seenName, info, thread, std::this_thread::get_id() == mainThread_});
          }
          VelaMainThread::stop();
        });
    EXPECT_NE(token, 0U);
    return token;
  }

  std::vector<Seen> seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }

  std::vector<Seen> seenOn(Thread thread) const {
    std::vector<Seen> matching;
    for (auto& one : seen()) {
      if (one.thread == thread) matching.push_back(one);
    }
    return matching;
  }

  // Runs the main loop until `count` notifications have been seen in all.
  bool await(std::size_t count, std::chrono::milliseconds limit = kReplyTimeLimit) {
    return runMainLoopUntil([&] { return seen().size() >= count; }, limit);
  }

  void post(std::string_view name, const std::optional<VelaDictionary>& userInfo = std::nullopt) {
    ASSERT_TRUE(control_->postNotification(kVelaClientNotifyCenter, name, userInfo)) << control_->lastFailure();
  }

  // Returns once a marker velad posts reaches the session: nothing tells
  // when the session's match is in place, so velad posts one, and again,
  // until it is heard. The marker's observer is gone afterwards.
  void awaitListening(std::chrono::milliseconds limit = kReplyTimeLimit) {
    std::atomic<bool> heard{false};
    const Token token = session_->addObserver(kVelaClientNotifyCenter, kMarker, Thread::kConnectionThread,
                                              [&heard](const std::string&, const VelaDictionary&) {
                                                heard = true;
                                                VelaMainThread::stop();
                                              });
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!heard && std::chrono::steady_clock::now() < deadline) {
      ASSERT_TRUE(control_->postNotification(kVelaClientNotifyCenter, kMarker, std::nullopt))
          << control_->lastFailure();
      VelaMainThread::runFor(100ms);
    }
    EXPECT_TRUE(session_->removeObserver(token));
    ASSERT_TRUE(heard) << "the session never heard velad";
  }

  const std::thread::id mainThread_ = std::this_thread::get_id();
  mutable std::mutex mutex_;
  std::vector<Seen> seen_;
};

VelaDictionary stateInfo(std::int32_t state) { return {{std::string(kVelaLocusStateKey), state}}; }
VelaDictionary lostModeInfo(bool enabled) { return {{std::string(kVelaLostModeEnabledKey), enabled}}; }

TEST_F(AnObserver, SeesEveryStepOfASwitchOnTheThreadItChose) {
  for (const Thread thread : {Thread::kMainThread, Thread::kConnectionThread}) {
    (void)observe(kLocusStateDidChangeNotification, thread);
    (void)observe(kLostModeChangedNotification, thread);
  }
  awaitListening();

  ASSERT_EQ(session_->enableLocusInContext(0), std::nullopt);
  ASSERT_TRUE(await(4)) << "the switch was not seen to settle";
  auto info = std::make_shared<VelaLostModeInfo>();
  info->setMessage("call me");
  ASSERT_EQ(session_->enableLostModeWithInfo(info), std::nullopt);
  ASSERT_TRUE(await(6));
  session_->disableLostMode();
  ASSERT_TRUE(await(8));

  for (const Thread thread : {Thread::kMainThread, Thread::kConnectionThread}) {
    const auto seen = seenOn(thread);
    ASSERT_EQ(seen.size(), 4U);
    EXPECT_EQ(seen[0].name, kLocusStateDidChangeNotification);
    EXPECT_EQ(seen[0].userInfo, stateInfo(protocol::kLocusStateSwitching));
    EXPECT_EQ(seen[1].userInfo, stateInfo(protocol::kLocusStateOn));
    EXPECT_EQ(seen[2].name, kLostModeChangedNotification);
    EXPECT_EQ(seen[2].userInfo, lostModeInfo(true));
    EXPECT_EQ(seen[3].userInfo, lostModeInfo(false));
    for (const auto& one : seen) EXPECT_EQ(one.onMainThread, thread == Thread::kMainThread) << one.name;
  }
}

TEST_F(AnObserver, IgnoresANotificationFromAConnectionThatDoesNotOwnTheName) {
  static constexpr std::string_view kGenuine = "test.genuine";
  (void)observe(kLostModeChangedNotification, Thread::kConnectionThread);
  (void)observe(kGenuine, Thread::kConnectionThread);
  awaitListening();
  auto impostor = bus::TestBusClient::open(bus::BusKind::kSystem);
  ASSERT_NE(impostor, nullptr);
  ASSERT_EQ(impostor->postNotification(kVelaClientNotifyCenter, kLostModeChangedNotification, lostModeInfo(true)), 0);
  // velad's own notification comes after the forged one.
  post(kGenuine);
  ASSERT_TRUE(await(1));
  const auto seen = this->seen();
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].name, kGenuine);
}

TEST_F(AnObserver, HearsTheDaemonAgainAfterItRestartsWithoutAnyCall) {
  (void)observe(kLocusStateDidChangeNotification, Thread::kMainThread);
  awaitListening();
  velad_->restart();
  control_.emplace();
  ASSERT_TRUE(control_->connected()) << control_->lastFailure();
  awaitListening();
  post(kLocusStateDidChangeNotification, stateInfo(protocol::kLocusStateOff));
  ASSERT_TRUE(await(1));
  EXPECT_EQ(seen().back().userInfo, stateInfo(protocol::kLocusStateOff));
}

TEST_F(AnObserver, HearsTheDaemonAgainAfterTheBusRestartsWithoutAnyCall) {
  (void)observe(kLocusStateDidChangeNotification, Thread::kConnectionThread);
  awaitListening();
  bus_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit()) << "velad should leave when its bus goes";
  bus_->restart();
  velad_->restart();
  control_.emplace();
  ASSERT_TRUE(control_->connected()) << control_->lastFailure();
  // The session retries at growing intervals of up to 2 s while the bus is away.
  awaitListening(kReplyTimeLimit * 2);
  post(kLocusStateDidChangeNotification, stateInfo(protocol::kLocusStateOn));
  ASSERT_TRUE(await(1));
}

TEST_F(AnObserver, StopsOnceRemovedFromAnyThreadOrFromInsideItsHandler) {
  std::atomic<int> selfRemovingCalls{0};
  Token selfRemoving = 0;
  std::mutex tokenMutex;
  {
    std::lock_guard lock(tokenMutex);
    selfRemoving = session_->addObserver(kVelaClientNotifyCenter, kMarker, Thread::kConnectionThread,
                                         [&](const std::string&, const VelaDictionary&) {
                                           ++selfRemovingCalls;
                                           std::lock_guard lock(tokenMutex);
                                           EXPECT_TRUE(session_->removeObserver(selfRemoving));
                                         });
  }
  const Token mainThreadOne = observe(kMarker, Thread::kMainThread);
  const Token removedElsewhere = observe(kMarker, Thread::kConnectionThread);
  awaitListening();
  ASSERT_TRUE(await(2));
  EXPECT_EQ(selfRemovingCalls, 1);

  std::thread([&] {
    EXPECT_TRUE(session_->removeObserver(removedElsewhere));
    EXPECT_FALSE(session_->removeObserver(removedElsewhere));
  }).join();
  EXPECT_TRUE(session_->removeObserver(mainThreadOne));
  const auto before = seen().size();

  // Two more markers reach only the awaiting one that awaitListening adds.
  awaitListening();
  awaitListening();
  EXPECT_EQ(selfRemovingCalls, 1);
  EXPECT_EQ(seen().size(), before);
}

TEST_F(AnObserver, IsRefusedWithoutAHandlerOrAValidCenter) {
  EXPECT_EQ(session_->addObserver(kVelaClientNotifyCenter, kMarker, Thread::kMainThread, nullptr), 0U);
  const auto ignore = [](const std::string&, const VelaDictionary&) {};
  EXPECT_EQ(session_->addObserver("not a center", kMarker, Thread::kMainThread, ignore), 0U);
  EXPECT_EQ(session_->addObserver("", kMarker, Thread::kMainThread, ignore), 0U);
  EXPECT_FALSE(session_->removeObserver(0));
  EXPECT_FALSE(session_->removeObserver(12345));
}

// The vetting and the host's observers share the session's one listener for
// the center: neither may silence the other.
TEST_F(AnObserver, AndAVettingBothHearTheCenter) {
  struct FinishCounter : VelaNotifySessionDelegate {
    std::atomic<int> finishes{0};
    void vettingDidFinishWithError(const std::optional<VelaError>& /*error*/) override {
      ++finishes;
      VelaMainThread::stop();
    }
  };
  auto delegate = std::make_shared<FinishCounter>();
  session_->setDelegate(delegate);
  (void)observe(protocol::kVetFinishedNotification, Thread::kConnectionThread);
  ASSERT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  ASSERT_TRUE(await(1)) << "the observer did not hear the vetting end";
  ASSERT_TRUE(runMainLoopUntil([&] { return delegate->finishes > 0; })) << "the delegate did not hear the vetting end";
  EXPECT_EQ(delegate->finishes, 1);
}

}  // namespace
}  // namespace vela::testing
