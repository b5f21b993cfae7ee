// SPDX-License-Identifier: MIT
// The session's connection across daemon and bus failures.
#include <pthread.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/bus/named_connection.h"
#include "protocol/names.h"
#include "scoped_variable.h"
#include "session_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using AConnectionToVelad = ASessionWithVelad;

// What the library names the thread a connection runs host code on.
constexpr std::string_view kConnectionThreadName = "vela-bus";

// How many of this process's threads carry that name. Each test runs in a
// process of its own, so they are this test's.
int connectionThreads() {
  int count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    count += name == kConnectionThreadName ? 1 : 0;
  }
  return count;
}

std::string nameOfThisThread() {
  std::array<char, 16> name{};
  (void)pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

// With no address given, the session bus is the socket `bus` in the user's
// runtime directory, whose path may hold bytes that a bus address escapes.
TEST_F(AConnectionToVelad, FindsTheSessionBusInTheRuntimeDirectoryWhenNoAddressIsGiven) {
  const std::filesystem::path runtimeDir = std::filesystem::path(bus_->directory()) / "run time,%=;dir";
  ASSERT_TRUE(std::filesystem::create_directory(runtimeDir));
  std::filesystem::create_symlink(std::filesystem::path(bus_->directory()) / "bus", runtimeDir / "bus");
  const ScopedVariable noAddress("DBUS_SESSION_BUS_ADDRESS", nullptr);
  const ScopedVariable runtime("XDG_RUNTIME_DIR", runtimeDir.c_str());

  const auto connection = bus::NamedConnection::create(std::string(protocol::kServiceName), 0);
  connection->resume();
  std::promise<std::optional<VelaError>> outcome;
  connection->callMethod(
      member::kGetLocusDeviceId, {}, [&outcome](const VelaDictionary& /*reply*/) { outcome.set_value(std::nullopt); },
      [&outcome](const VelaError& error) { outcome.set_value(error); });
  auto result = outcome.get_future();
  ASSERT_EQ(result.wait_for(kReplyTimeLimit), std::future_status::ready);
  EXPECT_EQ(result.get(), std::nullopt);
}

TEST_F(AConnectionToVelad, ReconnectsAfterTheDaemonIsKilledAndRestartedBetweenCalls) {
  ASSERT_TRUE(session_->locusDeviceId());

  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  velad_->restart();

  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, ReportsAnAbsentServicePromptly) {
  ASSERT_TRUE(session_->locusDeviceId());
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());

  std::optional<VelaError> error;
  const auto took = timed([&] { error = session_->enableLocusInContext(1); });
  expectTimedOut(error);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  EXPECT_LT(took, 2s) << "an absent service must not wait out the time limit";

  velad_->restart();
  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, EndsACallPromptlyWhenTheDaemonDiesDuringIt) {
  behave(member::kGetLocusDeviceId.name, "exit");

  std::optional<std::string> id;
  const auto took = timed([&] { id = session_->locusDeviceId(); });
  EXPECT_FALSE(id);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  EXPECT_LT(took, 2s);
  ASSERT_TRUE(velad_->waitForExit());

  velad_->restart();
  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, ReconnectsWhenTheDaemonIsKilledDuringACall) {
  // A call held by velad, then velad killed under it.
  behave(member::kGetKithDeviceId.name, "never");
  auto pending = std::async(std::launch::async, [this] { return session_->kithDeviceId(); });
  ASSERT_TRUE(control_->waitForCall(member::kGetKithDeviceId.name)) << control_->lastFailure();
  const auto killedAt = std::chrono::steady_clock::now();
  velad_->kill(SIGKILL);

  EXPECT_FALSE(pending.get());
  EXPECT_LT(std::chrono::steady_clock::now() - killedAt, 2s);
  ASSERT_TRUE(velad_->waitForExit());

  velad_->restart();
  EXPECT_TRUE(session_->kithDeviceId());
}

TEST_F(AConnectionToVelad, TimesOutAtTheReplyTimeLimitWhenTheDaemonNeverAnswers) {
  behave(member::kEnableLocusInContext.name, "never");
  std::optional<VelaError> error;
  const auto took = timed([&] { error = session_->enableLocusInContext(3); });
  expectTimedOut(error);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  EXPECT_GE(took, kReplyTimeLimit - 100ms);
  EXPECT_LT(took, kReplyTimeLimit + 3s);
}

TEST_F(AConnectionToVelad, DropsAReplyThatArrivesAfterTheTimeLimit) {
  // The late reply lands while a second call of the same thread is in
  // flight; the answer it would have filled belongs to a call that is over,
  // and must not become the second call's.
  const auto expected = session_->kithDeviceId();
  ASSERT_TRUE(expected);
  ASSERT_NE(session_->locusDeviceId(), expected);
  ASSERT_TRUE(control_->setBehavior(member::kGetLocusDeviceId.name,
                                    VeladControl::Behavior{.mode = "delay", .delay = kReplyTimeLimit + 500ms}));
  ASSERT_TRUE(
      control_->setBehavior(member::kGetKithDeviceId.name, VeladControl::Behavior{.mode = "delay", .delay = 1500ms}));

  EXPECT_FALSE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  // velad answers in time order, so the late reply reaches us before this one.
  EXPECT_EQ(session_->kithDeviceId(), expected);
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, SurvivesTheBusGoingAwayAndWorksOnceItIsBack) {
  ASSERT_TRUE(session_->locusDeviceId());
  bus_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit()) << "velad should leave when its bus goes";

  EXPECT_FALSE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);

  bus_->restart();
  velad_->restart();
  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, ServesManyThreadsAtOnce) {
  const auto expectedLocus = session_->locusDeviceId();
  const auto expectedKith = session_->kithDeviceId();
  ASSERT_TRUE(expectedLocus && expectedKith);
  ASSERT_NE(expectedLocus, expectedKith);

  constexpr int kThreads = 16;
  constexpr int kCallsEach = 40;
  std::vector<std::future<int>> workers;
  workers.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [&, t] {
      int wrong = 0;
      for (int i = 0; i < kCallsEach; ++i) {
        const bool locus = (t + i) % 2 == 0;
        const auto id = locus ? session_->locusDeviceId() : session_->kithDeviceId();
        if (id != (locus ? expectedLocus : expectedKith)) ++wrong;
      }
      return wrong;
    }));
  }
  for (auto& worker : workers) EXPECT_EQ(worker.get(), 0);
}

// A caller waiting for its own answer reads the bus for everyone while it
// waits; the next three cases hold it to that.
TEST_F(AConnectionToVelad, AnswersOtherCallersWhileOneWaitsOutTheTimeLimit) {
  const auto expected = session_->kithDeviceId();  // the connection is up before the caller that waits
  ASSERT_TRUE(expected);
  behave(member::kEnableLocusInContext.name, "never");
  auto stuck = std::async(std::launch::async, [this] { return session_->enableLocusInContext(2); });
  ASSERT_TRUE(control_->waitForCall(member::kEnableLocusInContext.name)) << control_->lastFailure();

  const auto took = timed([&] {
    for (int i = 0; i < 20; ++i) EXPECT_EQ(session_->kithDeviceId(), expected);
  });
  EXPECT_LT(took, kWellWithinTheLimit) << "callers queued behind one that waits must still be answered at once";
  expectTimedOut(stuck.get());
  EXPECT_TRUE(session_->locusDeviceId()) << "the connection must serve on after a caller gave up reading it";
}

TEST_F(AConnectionToVelad, RunsCompletionsOnItsOwnThreadWhenACallerReadsTheirReplies) {
  // The completion's reply arrives while a synchronous caller reads the bus.
  ASSERT_TRUE(
      control_->setBehavior(member::kGetLocusState.name, VeladControl::Behavior{.mode = "delay", .delay = 200ms}));
  ASSERT_TRUE(
      control_->setBehavior(member::kGetKithDeviceId.name, VeladControl::Behavior{.mode = "delay", .delay = 600ms}));
  std::promise<std::thread::id> ranOn;
  session_->locusStateWithCompletion([&ranOn](std::int32_t /*state*/, const std::optional<VelaError>& /*error*/) {
    ranOn.set_value(std::this_thread::get_id());
  });
  std::thread::id callerThread;
  auto caller = std::async(std::launch::async, [&] {
    callerThread = std::this_thread::get_id();
    return session_->kithDeviceId();
  });
  EXPECT_TRUE(caller.get());
  auto completion = ranOn.get_future();
  ASSERT_EQ(completion.wait_for(5s), std::future_status::ready);
  const std::thread::id completionThread = completion.get();
  EXPECT_NE(completionThread, callerThread);
  EXPECT_NE(completionThread, std::this_thread::get_id());
}

TEST_F(AConnectionToVelad, EndsAWaitingCallAtOnceWhenTheConnectionIsDestroyed) {
  ASSERT_TRUE(session_->locusDeviceId());  // the connection is up before the caller that waits
  behave(member::kEnableLocusInContext.name, "never");
  auto stuck = std::async(std::launch::async, [this] {
    std::optional<VelaError> error;
    const auto took = timed([&] { error = session_->enableLocusInContext(2); });
    return std::pair(took, error);
  });
  ASSERT_TRUE(control_->waitForCall(member::kEnableLocusInContext.name)) << control_->lastFailure();

  session_->_destroyLinkConnection();
  const auto [took, error] = stuck.get();
  EXPECT_LT(took, kWellWithinTheLimit);
  expectTimedOut(error);
  EXPECT_TRUE(session_->locusDeviceId());
}

// A completion still pending when its session is destroyed is dropped, and
// the destructor waits for nothing: here it runs while holding the lock the
// completion would take, which would deadlock a destructor that waited for
// the connection's thread to run the completion.
TEST_F(AConnectionToVelad, DropsThePendingCompletionsOfADestroyedSessionWithoutWaitingForThem) {
  behave(member::kGetLocusState.name, "never");
  std::mutex hostLock;
  std::atomic<int> completions{0};
  session_->locusStateWithCompletion([&](std::int32_t /*state*/, const std::optional<VelaError>& /*error*/) {
    std::lock_guard lock(hostLock);
    ++completions;
  });
  ASSERT_TRUE(control_->waitForCall(member::kGetLocusState.name)) << control_->lastFailure();
  const std::shared_ptr<bus::NamedConnection> connection = session_->linkConnection();
  ASSERT_TRUE(connection);
  {
    std::lock_guard held(hostLock);
    session_.reset();
  }

  // The destroyed session's connection fails what it still carries in
  // order: once a request sent after the pending one has failed, the
  // pending one has been dealt with, and its completion must not have run.
  std::promise<void> failed;
  connection->callMethod(
      member::kGetKithDeviceId, {}, [](const VelaDictionary& /*reply*/) {},
      [&failed](const VelaError& /*error*/) { failed.set_value(); });
  ASSERT_EQ(failed.get_future().wait_for(kReplyTimeLimit), std::future_status::ready);
  EXPECT_EQ(completions.load(), 0);
}

TEST_F(AConnectionToVelad, LetsACompletionDestroyItsOwnSession) {
  std::promise<void> done;
  session_->locusStateWithCompletion(
      [&done, last = std::move(session_)](std::int32_t /*state*/, const std::optional<VelaError>& /*error*/) mutable {
        last.reset();  // the session's destructor runs here, on the connection's thread
        done.set_value();
      });
  ASSERT_EQ(done.get_future().wait_for(kReplyTimeLimit), std::future_status::ready);
}

// A synchronous call's answer is read by its own caller, so host code
// holding up the connection's thread delays no synchronous call.
TEST_F(AConnectionToVelad, AnswersSynchronousCallsWhileACompletionHoldsUpItsThread) {
  std::promise<void> entered;
  std::promise<void> release;
  // Held by the completion itself: it may still be waking up from it when
  // the test is over.
  std::shared_future<void> released = release.get_future().share();
  session_->locusStateWithCompletion(
      [&entered, released](std::int32_t /*state*/, const std::optional<VelaError>& /*error*/) {
        entered.set_value();
        (void)released.wait_for(2 * kReplyTimeLimit);
      });
  ASSERT_EQ(entered.get_future().wait_for(kReplyTimeLimit), std::future_status::ready);

  std::optional<std::string> id;
  const auto took = timed([&] { id = session_->locusDeviceId(); });
  release.set_value();
  EXPECT_TRUE(id);
  EXPECT_LT(took, kWellWithinTheLimit);
}

// Its answer could only be read by the very thread that would wait for it.
TEST_F(AConnectionToVelad, FailsASynchronousCallOnItsOwnThreadAtOnce) {
  std::promise<std::pair<std::chrono::milliseconds, std::optional<VelaError>>> outcome;
  session_->locusStateWithCompletion([&](std::int32_t /*state*/, const std::optional<VelaError>& /*error*/) {
    std::optional<VelaError> error;
    const auto took = timed([&] { error = session_->enableLocusInContext(1); });
    outcome.set_value({took, error});
  });
  auto result = outcome.get_future();
  ASSERT_EQ(result.wait_for(kReplyTimeLimit), std::future_status::ready);
  const auto [took, error] = result.get();
  expectTimedOut(error);
  EXPECT_LT(took, kWellWithinTheLimit);
}

// A process that only makes synchronous calls stays single-threaded: each
// caller sends and reads for itself. The thread comes with the first thing
// that needs it, and runs the host's completions.
TEST_F(AConnectionToVelad, StartsItsThreadOnlyWhenSomethingBesidesSynchronousCallsNeedsIt) {
  ASSERT_TRUE(session_->locusDeviceId());
  ASSERT_TRUE(session_->kithDeviceId());
  EXPECT_EQ(connectionThreads(), 0);

  std::promise<std::string> ranOn;
  session_->locusStateWithCompletion(
      [&](std::int32_t /*state*/, const std::optional<VelaError>& /*error*/) { ranOn.set_value(nameOfThisThread()); });
  auto name = ranOn.get_future();
  ASSERT_EQ(name.wait_for(kReplyTimeLimit), std::future_status::ready);
  EXPECT_EQ(name.get(), kConnectionThreadName);
  EXPECT_EQ(connectionThreads(), 1);
  EXPECT_TRUE(session_->locusDeviceId());
}

}  // namespace
}  // namespace vela::testing
