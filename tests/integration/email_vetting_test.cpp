// SPDX-License-Identifier: MIT
// E-mail vetting end to end: the request, the notifications velad posts, and
// the delegate calls they become on the main thread (here, the test's own
// thread, which runs the library's default loop).
#include <algorithm>
#include <atomic>
#include <mutex>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "platform/notify/notification_center.h"
#include "protocol/names.h"
#include "session_fixture.h"
#include "test_bus_client.h"
#include "velactl_runner.h"

namespace vela::testing {
namespace {

namespace names = protocol;
using namespace std::chrono_literals;

struct DelegateCall {
  std::optional<VelaValue> results;  // a vettingResultsDidArrive call
  bool finish = false;               // a vettingDidFinishWithError call
  std::optional<VelaError> error;
  bool onMainThread = false;
};

// Records every call and ends the running loop, so a test waits for calls
// by running the loop rather than by sleeping.
class RecordingDelegate : public VelaNotifySessionDelegate {
 public:
  void vettingResultsDidArrive(const std::optional<VelaValue>& results) override {
    record(DelegateCall{results, false, std::nullopt, onMainThread()});
  }
  void vettingDidFinishWithError(const std::optional<VelaError>& error) override {
    record(DelegateCall{std::nullopt, true, error, onMainThread()});
  }

  std::vector<DelegateCall> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

  // Runs the main loop until `count` calls have come; false after `limit`.
  bool waitForCalls(std::size_t count, std::chrono::milliseconds limit = 5s) {
    return runMainLoopUntil([&] { return calls().size() >= count; }, limit);
  }

 private:
  bool onMainThread() const { return std::this_thread::get_id() == mainThread_; }
  void record(DelegateCall call) {
    {
      std::lock_guard lock(mutex_);
      calls_.push_back(std::move(call));
    }
    VelaMainThread::stop();
  }

  const std::thread::id mainThread_ = std::this_thread::get_id();
  mutable std::mutex mutex_;
  std::vector<DelegateCall> calls_;
};

class EmailVetting : public ASessionWithVelad {
 protected:
  void SetUp() override {
    ASessionWithVelad::SetUp();
    session_->setDelegate(delegate_);
  }

  // velad posts exactly these to each later requester, and nothing else.
  void script(std::vector<VeladControl::VetNotification> notifications) {
    ASSERT_TRUE(control_->setVetScript(std::move(notifications))) << control_->lastFailure();
  }

  // A notification from velad, to every listener.
  void post(std::string_view name, std::optional<VelaDictionary> userInfo = std::nullopt) {
    ASSERT_TRUE(control_->postNotification(protocol::kClientNotifyCenter, name, userInfo)) << control_->lastFailure();
  }

  // Returns once everything velad posted before now has been delivered and
  // the delegate calls it caused have run: velad posts a marker, and a task
  // queued behind the marker's delivery ends the loop.
  void settle() {
    static constexpr std::string_view kMarker = "test.marker";
    auto token = std::make_shared<int>(0);
    bool seen = false;
    notify::NotificationCenter::defaultCenter().addObserver(token, std::string(kMarker), nullptr,
                                                            [&seen](const notify::Notification&) {
                                                              VelaMainThread::perform([&seen] {
                                                                seen = true;
                                                                VelaMainThread::stop();
                                                              });
                                                            });
    post(kMarker);
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!seen && std::chrono::steady_clock::now() < deadline) VelaMainThread::runFor(1s);
    notify::NotificationCenter::defaultCenter().removeObserver(token.get());
    ASSERT_TRUE(seen) << "the marker notification never arrived";
  }

  // Returns once the session hears velad again after velad changed: nothing
  // announces that the session's new match is in place, so velad posts a
  // marker until one arrives, each time waiting for it a while.
  void awaitListening() {
    static constexpr std::string_view kMarker = "test.listening";
    auto token = std::make_shared<int>(0);
    std::atomic<bool> seen{false};
    notify::NotificationCenter::defaultCenter().addObserver(token, std::string(kMarker), nullptr,
                                                            [&seen](const notify::Notification&) { seen = true; });
    const auto deadline = std::chrono::steady_clock::now() + kReplyTimeLimit;
    while (!seen && std::chrono::steady_clock::now() < deadline) {
      post(kMarker);
      VelaMainThread::runFor(100ms);
    }
    notify::NotificationCenter::defaultCenter().removeObserver(token.get());
    ASSERT_TRUE(seen) << "the session never heard velad again";
  }

  // Once the session hears velad again, results velad posts reach the delegate.
  void expectResultsHeard(std::string_view results) {
    awaitListening();
    post(names::kVetResultsFoundNotification, VelaDictionary{{"Results", std::string(results)}});
    ASSERT_TRUE(delegate_->waitForCalls(1));
    EXPECT_EQ(delegate_->calls()[0].results, VelaValue(std::string(results)));
  }

  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(EmailVetting, ResultsThenFinishReachTheDelegateOnTheMainThreadAndEndTheListening) {
  EXPECT_EQ(session_->vetEmailAccount("someone@example.org"), std::nullopt);
  EXPECT_EQ(lastResult(), 0);
  ASSERT_TRUE(delegate_->waitForCalls(2));
  auto calls = delegate_->calls();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_FALSE(calls[0].finish);
  EXPECT_EQ(calls[0].results, VelaValue(VelaDictionary{{"account", "someone@example.org"}, {"deliverable", true}}));
  EXPECT_TRUE(calls[1].finish);
  EXPECT_EQ(calls[1].error, std::nullopt);
  EXPECT_TRUE(calls[0].onMainThread && calls[1].onMainThread);

  // Listening ended with the finish: later results reach no one.
  post(names::kVetResultsFoundNotification, VelaDictionary{{"Results", 1}});
  settle();
  EXPECT_EQ(delegate_->calls().size(), 2U);
}

TEST_F(EmailVetting, PassesResultsOnUnreadAndRebuildsTheFinishErrorWithoutAReason) {
  script({{std::string(names::kVetResultsFoundNotification), VelaDictionary{{"Results", VelaArray{1, "two"}}}},
          {std::string(names::kVetResultsFoundNotification), VelaDictionary{}},
          {std::string(names::kVetFinishedNotification), VelaDictionary{{"Error", VelaDictionary{{"code", 4}}}}}});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  ASSERT_TRUE(delegate_->waitForCalls(3));
  const auto calls = delegate_->calls();
  EXPECT_EQ(calls[0].results, VelaValue(VelaArray{1, "two"}));
  EXPECT_EQ(calls[1].results, std::nullopt);
  ASSERT_TRUE(calls[2].finish);
  ASSERT_TRUE(calls[2].error.has_value());
  EXPECT_EQ(calls[2].error->domain(), kVelaErrorDomain);
  EXPECT_EQ(calls[2].error->code(), 4);
  EXPECT_TRUE(calls[2].error->userInfo().empty());
}

TEST_F(EmailVetting, VeladFinishesAnUndeliverableAddressWithItsError) {
  EXPECT_EQ(session_->vetEmailAccount("not an address"), std::nullopt);
  ASSERT_TRUE(delegate_->waitForCalls(2));
  const auto finish = delegate_->calls()[1];
  ASSERT_TRUE(finish.error.has_value());
  EXPECT_EQ(finish.error->domain(), "com.zentrex.VelaNotification.daemon");
  EXPECT_EQ(finish.error->code(), 4);
}

TEST_F(EmailVetting, ANilAccountIsRefusedWithoutSideEffects) {
  const auto error = session_->vetEmailAccount(std::nullopt);
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->domain(), kVelaErrorDomain);
  EXPECT_EQ(error->code(), VelaErrorCodeAccountIsNil);
  EXPECT_EQ(error->failureReason(), "account is nil");
  EXPECT_EQ(lastResult(), VelaErrorCodeAccountIsNil);
  EXPECT_EQ(session_->center(), nullptr);
  EXPECT_TRUE(callsTo(member::kVetEmailAccount.name).empty());
}

TEST_F(EmailVetting, ACancelSilencesALaterFinish) {
  script({});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  EXPECT_EQ(session_->cancelEmailVet(), std::nullopt);
  EXPECT_EQ(callsTo(member::kCancelEmailVet.name).size(), 1U);
  post(names::kVetFinishedNotification);
  settle();
  EXPECT_TRUE(delegate_->calls().empty());
}

TEST_F(EmailVetting, TwoVettingsWithoutAFinishHearEachResultTwice) {
  script({});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  post(names::kVetResultsFoundNotification, VelaDictionary{{"Results", 7}});
  ASSERT_TRUE(delegate_->waitForCalls(2));
  // The first finish handler removes every registration, so one finish.
  post(names::kVetFinishedNotification);
  settle();
  const auto calls = delegate_->calls();
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_EQ(calls[0].results, VelaValue(7));
  EXPECT_EQ(calls[1].results, VelaValue(7));
  EXPECT_TRUE(calls[2].finish);
}

TEST_F(EmailVetting, WithoutADelegateAFinishStillEndsTheListening) {
  session_->setDelegate({});
  script({});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  post(names::kVetFinishedNotification);
  settle();
  session_->setDelegate(delegate_);
  post(names::kVetResultsFoundNotification, VelaDictionary{{"Results", 1}});
  settle();
  EXPECT_TRUE(delegate_->calls().empty());
}

TEST_F(EmailVetting, IgnoresNotificationsFromAProcessThatDoesNotOwnTheServiceName) {
  script({});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  auto impostor = bus::TestBusClient::open(bus::BusKind::kSystem);
  ASSERT_NE(impostor, nullptr);
  ASSERT_EQ(impostor->postNotification(protocol::kClientNotifyCenter, names::kVetResultsFoundNotification,
                                       {{"Results", "forged"}}),
            0);
  ASSERT_EQ(impostor->postNotification(protocol::kClientNotifyCenter, names::kVetFinishedNotification, {}), 0);
  post(names::kVetResultsFoundNotification, VelaDictionary{{"Results", "genuine"}});
  ASSERT_TRUE(delegate_->waitForCalls(1));
  settle();
  const auto calls = delegate_->calls();
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].results, VelaValue("genuine"));
}

TEST_F(EmailVetting, ARequestThatTimedOutStillHearsLaterResults) {
  behave(member::kVetEmailAccount.name, "never");
  expectTimedOut(session_->vetEmailAccount("a@b.c"));
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  post(names::kVetResultsFoundNotification, VelaDictionary{{"Results", "late"}});
  ASSERT_TRUE(delegate_->waitForCalls(1));
  EXPECT_EQ(delegate_->calls()[0].results, VelaValue("late"));
}

TEST_F(EmailVetting, KeepsListeningAcrossADaemonRestart) {
  script({});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  velad_->restart();
  // The next operation makes a new connection, which listens again.
  EXPECT_TRUE(session_->kithDeviceId().has_value());
  post(names::kVetResultsFoundNotification, VelaDictionary{{"Results", "after restart"}});
  ASSERT_TRUE(delegate_->waitForCalls(1));
  EXPECT_EQ(delegate_->calls()[0].results, VelaValue("after restart"));
}

// Whichever caller reads the bus also reads the notifications on it: one
// must reach its observers promptly while every thread keeps the bus busy,
// with nobody waiting for it in particular.
TEST_F(EmailVetting, ANotificationArrivesPromptlyWhileEightThreadsCallBackToBack) {
  static constexpr std::string_view kMarker = "test.prompt";
  script({});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  settle();

  // Observers run on the main thread, which is this one.
  std::optional<std::chrono::steady_clock::time_point> arrival;
  auto token = std::make_shared<int>(0);
  notify::NotificationCenter::defaultCenter().addObserver(token, std::string(kMarker), nullptr,
                                                          [&arrival](const notify::Notification&) {
                                                            arrival = std::chrono::steady_clock::now();
                                                            VelaMainThread::stop();
                                                          });
  std::atomic<bool> stop{false};
  std::atomic<int> failedCalls{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] {
      while (!stop) {
        if (!session_->locusDeviceId()) ++failedCalls;
      }
    });
  }
  std::vector<std::chrono::steady_clock::duration> delays;
  for (int i = 0; i < 9; ++i) {
    arrival.reset();
    const auto posted = std::chrono::steady_clock::now();
    post(kMarker);
    const auto deadline = posted + kReplyTimeLimit;
    while (!arrival && std::chrono::steady_clock::now() < deadline) {
      VelaMainThread::runFor(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - posted));
    }
    if (!arrival) break;
    delays.push_back(*arrival - posted);
  }
  stop = true;
  for (auto& caller : callers) caller.join();
  notify::NotificationCenter::defaultCenter().removeObserver(token.get(), kMarker, nullptr);

  EXPECT_EQ(failedCalls, 0);
  ASSERT_EQ(delays.size(), 9U) << "a notification never arrived";
  std::sort(delays.begin(), delays.end());
  EXPECT_LT(delays[delays.size() / 2], 50ms) << "median delay from posting to the observer";
}

// The listening belongs to the session while its observers are registered:
// it follows the service to its next owner with no call from the host.
TEST_F(EmailVetting, FollowsTheServiceToItsNextOwnerWithoutAnotherCall) {
  script({});
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  velad_->restart();
  expectResultsHeard("after restart");
}

TEST_F(EmailVetting, HearsADaemonThatStartsAfterTheRequestFoundNone) {
  velad_->kill();
  ASSERT_TRUE(velad_->waitForExit());
  expectTimedOut(session_->vetEmailAccount("a@b.c"));
  velad_->restart();
  expectResultsHeard("first owner");
}

TEST_F(EmailVetting, DestroyingTheSessionWhileNotificationsArriveIsSafe) {
  std::vector<VeladControl::VetNotification> many(
      50, {std::string(names::kVetResultsFoundNotification), VelaDictionary{{"Results", 1}}});
  many.push_back({std::string(names::kVetFinishedNotification)});
  script(many);
  EXPECT_EQ(session_->vetEmailAccount("a@b.c"), std::nullopt);
  ASSERT_TRUE(delegate_->waitForCalls(1));
  session_.reset();
  // Whatever was queued for the main thread before the session went runs
  // now, and finds nothing to deliver to.
  VelaMainThread::perform([] { VelaMainThread::stop(); });
  VelaMainThread::run();
  EXPECT_LE(delegate_->calls().size(), 51U);
}

TEST_F(EmailVetting, VelactlPrintsEachDelegateCallAsAJsonLine) {
  const VelactlOutput output = runVelactl("vet-email-account someone@example.org --wait --timeout-ms 5000");
  EXPECT_EQ(output.exitCode, 0) << output.text;
  std::istringstream lines(output.text);
  std::vector<nlohmann::json> objects;
  for (std::string line; std::getline(lines, line);) objects.push_back(nlohmann::json::parse(line, nullptr, false));
  ASSERT_EQ(objects.size(), 3U) << output.text;
  EXPECT_TRUE(objects[0]["error"].is_null());
  EXPECT_EQ(objects[1]["event"], "vettingResultsDidArrive");
  EXPECT_EQ(objects[1]["results"]["account"], "someone@example.org");
  EXPECT_EQ(objects[2], (nlohmann::json{{"event", "vettingDidFinishWithError"}, {"error", nullptr}}));
}

}  // namespace
}  // namespace vela::testing
