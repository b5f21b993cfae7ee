// SPDX-License-Identifier: MIT
// The non-blocking twins: each completes exactly once, with what its
// blocking twin returns, whatever the daemon does, and never once the
// session is gone.
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "session_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
namespace key = protocol::key;
using Session = VelaNotifySession;

// What an operation gave: a value (if it has one), and its error.
struct Result {
  std::optional<VelaValue> value;
  std::optional<VelaError> error;
  bool operator==(const Result&) const = default;
};

void PrintTo(const Result& result, std::ostream* os) {
  *os << ::testing::PrintToString(result.value) << " / " << ::testing::PrintToString(result.error);
}

std::optional<VelaValue> valueOf(std::optional<std::string> text) {
  return text ? std::optional<VelaValue>(*text) : std::nullopt;
}
std::optional<VelaValue> valueOf(std::optional<VelaDictionary> dictionary) {
  return dictionary ? std::optional<VelaValue>(*dictionary) : std::nullopt;
}
std::optional<VelaValue> valueOf(const std::shared_ptr<VelaKithAccountInfo>& account) {
  return account ? valueOf(account->username().value_or("<no name>")) : std::nullopt;
}

// One operation as both twins call it. `async` passes the twin a
// completion that reports through `done`.
struct Operation {
  const char* label;
  const protocol::Member* member;
  std::function<void(Session&, std::function<void(Result)> done)> async;
  std::function<Result(Session&)> sync;
};

std::shared_ptr<VelaKithAccountInfo> kithAccount() {
  auto account = std::make_shared<VelaKithAccountInfo>();
  account->setUsername("friend@example.org");
  return account;
}

template <typename Value>
auto valueAndError(std::function<void(Result)> done) {
  return [done = std::move(done)](Value value, std::optional<VelaError> error) {
    done(Result{valueOf(std::move(value)), std::move(error)});
  };
}

auto errorOnly(std::function<void(Result)> done) {
  return [done = std::move(done)](std::optional<VelaError> error) { done(Result{std::nullopt, std::move(error)}); };
}

Result withLastResult(std::optional<VelaValue> value) {
  std::optional<VelaError> error;
  if (const auto code = velaLastOperationResult.load(); code != 0) error = VelaError("(code only)", code, {});
  return Result{std::move(value), std::move(error)};
}

// The queries: calling them twice changes nothing in velad.
std::vector<Operation> queries() {
  using Text = std::optional<std::string>;
  using Dictionary = std::optional<VelaDictionary>;
  return {
      {"kithDeviceId", &member::kGetKithDeviceId,
       [](Session& s, auto done) { s.kithDeviceIdAsync(valueAndError<Text>(done)); },
       [](Session& s) { return withLastResult(valueOf(s.kithDeviceId())); }},
      {"locusDeviceId", &member::kGetLocusDeviceId,
       [](Session& s, auto done) { s.locusDeviceIdAsync(valueAndError<Text>(done)); },
       [](Session& s) { return withLastResult(valueOf(s.locusDeviceId())); }},
      {"storeAccount", &member::kGetStoreAccount,
       [](Session& s, auto done) { s.storeAccountAsync(valueAndError<Text>(done)); },
       [](Session& s) { return withLastResult(valueOf(s.storeAccount())); }},
      {"locusAccount", &member::kGetLocusAccount,
       [](Session& s, auto done) { s.locusAccountAsync(valueAndError<Dictionary>(done)); },
       [](Session& s) { return withLastResult(valueOf(s.locusAccount())); }},
      {"nimbusAccount", &member::kGetNimbusAccount,
       [](Session& s, auto done) { s.nimbusAccountAsync(valueAndError<Dictionary>(done)); },
       [](Session& s) { return withLastResult(valueOf(s.nimbusAccount())); }},
      {"retrieveAllAccounts", &member::kGetLocusAccount,
       [](Session& s, auto done) { s.retrieveAllAccountsAsync(valueAndError<Dictionary>(done)); },
       [](Session& s) {
         std::optional<VelaDictionary> accounts;
         (void)s.retrieveAllAccounts(accounts);
         return withLastResult(valueOf(std::move(accounts)));
       }},
      {"retrieveKithAccount", &member::kRetrieveKithAccount,
       [](Session& s, auto done) {
         s.retrieveKithAccountAsync(valueAndError<std::shared_ptr<VelaKithAccountInfo>>(done));
       },
       [](Session& s) {
         std::shared_ptr<VelaKithAccountInfo> account;
         auto error = s.retrieveKithAccount(account);
         return Result{valueOf(account), std::move(error)};
       }},
  };
}

// The operations that only report an error.
std::vector<Operation> switches() {
  return {
      {"enableLocus", &member::kEnableLocusInContext,
       [](Session& s, auto done) { s.enableLocusInContextAsync(0, errorOnly(done)); },
       [](Session& s) {
         return Result{std::nullopt, s.enableLocusInContext(0)};
       }},
      {"disableLocus", &member::kDisableLocusUsingToken,
       [](Session& s, auto done) { s.disableLocusUsingTokenAsync("token", 0, errorOnly(done)); },
       [](Session& s) {
         return Result{std::nullopt, s.disableLocusUsingToken("token", 0)};
       }},
      {"enableLostMode", &member::kEnableLostModeWithInfo,
       [](Session& s, auto done) {
         s.enableLostModeWithInfoAsync(std::make_shared<VelaLostModeInfo>(), errorOnly(done));
       },
       [](Session& s) {
         return Result{std::nullopt, s.enableLostModeWithInfo(std::make_shared<VelaLostModeInfo>())};
       }},
      {"addKithAccount", &member::kAddKithAccount,
       [](Session& s, auto done) { s.addKithAccountAsync(kithAccount(), errorOnly(done)); },
       [](Session& s) {
         return Result{std::nullopt, s.addKithAccount(kithAccount())};
       }},
      {"removeKithAccount", &member::kRemoveKithAccountWithUsername,
       [](Session& s, auto done) { s.removeKithAccountWithUsernameAsync("friend@example.org", errorOnly(done)); },
       [](Session& s) {
         return Result{std::nullopt, s.removeKithAccountWithUsername("friend@example.org")};
       }},
      {"vetEmailAccount", &member::kVetEmailAccount,
       [](Session& s, auto done) { s.vetEmailAccountAsync("a@b.c", errorOnly(done)); },
       [](Session& s) {
         return Result{std::nullopt, s.vetEmailAccount("a@b.c")};
       }},
      {"cancelEmailVet", &member::kCancelEmailVet,
       [](Session& s, auto done) { s.cancelEmailVetAsync(errorOnly(done)); },
       [](Session& s) {
         return Result{std::nullopt, s.cancelEmailVet()};
       }},
  };
}

std::vector<Operation> everyTwin() {
  auto all = queries();
  for (auto& one : switches()) all.push_back(std::move(one));
  return all;
}

struct Completion {
  Result result;
  bool onMainThread = false;
  std::chrono::steady_clock::time_point at;
};

class ANonBlockingTwin : public ASessionWithVelad {
 protected:
  // Calls each operation's twin and returns how long the calls took.
  std::chrono::milliseconds callTwins(const std::vector<Operation>& operations) {
    return timed([&] {
      for (const auto& operation : operations) {
        operation.async(*session_, [this, label = std::string(operation.label)](Result result) {
          {
            std::lock_guard lock(mutex_);
            completions_[label].push_back(Completion{std::move(result), std::this_thread::get_id() == mainThread_,
                                                     std::chrono::steady_clock::now()});
          }
          VelaMainThread::stop();
        });
      }
    });
  }

  std::size_t completionCount() const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    for (const auto& [label, list] : completions_) count += list.size();
    return count;
  }

  // Runs the main loop until `count` completions have come.
  bool awaitCompletions(std::size_t count, std::chrono::milliseconds limit = kReplyTimeLimit * 2) {
    return runMainLoopUntil([&] { return completionCount() >= count; }, limit);
  }

  // The one completion of `label`; fails the test unless there is exactly one.
  Completion only(const std::string& label) const {
    std::lock_guard lock(mutex_);
    const auto found = completions_.find(label);
    EXPECT_TRUE(found != completions_.end() && found->second.size() == 1) << label << " did not complete once";
    return found != completions_.end() && !found->second.empty() ? found->second.front() : Completion{};
  }

  void behaveForAll(const std::vector<Operation>& operations, const VeladControl::Behavior& behavior) {
    for (const auto& operation : operations) {
      ASSERT_TRUE(control_->setBehavior(operation.member->name, behavior)) << control_->lastFailure();
    }
  }

  const std::thread::id mainThread_ = std::this_thread::get_id();
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<Completion>> completions_;
};

TEST_F(ANonBlockingTwin, CompletesOnTheMainThreadWithWhatTheBlockingOneReturnsAndLeavesTheLastResult) {
  ASSERT_EQ(session_->addKithAccount(kithAccount()), std::nullopt);
  // The switches answer plainly, so that calling each twice changes nothing.
  behaveForAll(switches(), {.mode = "values"});
  const auto operations = everyTwin();
  velaLastOperationResult.store(77);
  callTwins(operations);
  ASSERT_TRUE(awaitCompletions(operations.size()));
  EXPECT_EQ(velaLastOperationResult.load(), 77);
  for (const auto& operation : operations) {
    const Completion completion = only(operation.label);
    EXPECT_TRUE(completion.onMainThread) << operation.label;
    EXPECT_EQ(completion.result.error, std::nullopt) << operation.label;
    EXPECT_EQ(completion.result, operation.sync(*session_)) << operation.label;
  }

  // The static one goes through the shared session.
  Session::copyStoreAccountAsync(valueAndError<std::optional<std::string>>([this](Result result) {
    {
      std::lock_guard lock(mutex_);
      completions_["copyStoreAccount"].push_back(Completion{std::move(result), true, {}});
    }
    VelaMainThread::stop();
  }));
  ASSERT_TRUE(awaitCompletions(operations.size() + 1));
  EXPECT_EQ(only("copyStoreAccount").result, withLastResult(valueOf(Session::copyStoreAccount())));
}

TEST_F(ANonBlockingTwin, CompletesWithTheDaemonsErrorAndWhatCameBesideIt) {
  const VelaError daemonError("com.example.daemon", 3, {{"failureReason", "not now"}});
  const auto operations = everyTwin();
  behaveForAll(operations, {.mode = "error", .error = daemonError});
  answerWith(member::kGetLocusDeviceId.name, {{std::string(key::kDeviceId), "device-7"}}, daemonError);
  callTwins(operations);
  ASSERT_TRUE(awaitCompletions(operations.size()));
  for (const auto& operation : operations) {
    const Completion completion = only(operation.label);
    EXPECT_EQ(completion.result.error, daemonError) << operation.label;
    const Result blocking = operation.sync(*session_);
    EXPECT_EQ(completion.result.value, blocking.value) << operation.label;
    ASSERT_TRUE(blocking.error.has_value()) << operation.label;
    EXPECT_EQ(blocking.error->code(), daemonError.code()) << operation.label;
  }
  EXPECT_EQ(only("locusDeviceId").result.value, VelaValue("device-7"));
}

// All at once, so that the test waits out the limit only once.
TEST_F(ANonBlockingTwin, ReturnsAtOnceAndTimesOutAtTheLimitWhenTheDaemonStaysSilent) {
  const auto operations = everyTwin();
  behaveForAll(operations, {.mode = "never"});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_LT(callTwins(operations), kWellWithinTheLimit);
  ASSERT_TRUE(awaitCompletions(operations.size()));
  for (const auto& operation : operations) {
    const Completion completion = only(operation.label);
    ASSERT_TRUE(completion.result.error.has_value()) << operation.label;
    EXPECT_EQ(completion.result.error->code(), VelaErrorCodeTimedOut) << operation.label;
    EXPECT_EQ(completion.result.error->failureReason(), "timed out") << operation.label;
    EXPECT_GE(completion.at - start, kReplyTimeLimit - 10ms) << operation.label;
    EXPECT_LT(completion.at - start, kReplyTimeLimit + kWellWithinTheLimit) << operation.label;
  }
}

// velad exits on the first of these calls it reads; the rest are then on
// their way to a daemon that is gone, or find none.
TEST_F(ANonBlockingTwin, TimesOutPromptlyWhenTheDaemonDies) {
  const auto operations = everyTwin();
  behaveForAll(operations, {.mode = "exit"});
  const auto start = std::chrono::steady_clock::now();
  callTwins(operations);
  ASSERT_TRUE(awaitCompletions(operations.size()));
  for (const auto& operation : operations) {
    const Completion completion = only(operation.label);
    ASSERT_TRUE(completion.result.error.has_value()) << operation.label;
    EXPECT_EQ(completion.result.error->code(), VelaErrorCodeTimedOut) << operation.label;
    EXPECT_LT(completion.at - start, kWellWithinTheLimit) << operation.label;
  }
}

TEST_F(ANonBlockingTwin, GivesANilAccountTheBlockingCallsErrorWithoutAsking) {
  session_->vetEmailAccountAsync(std::nullopt, [this](std::optional<VelaError> error) {
    {
      std::lock_guard lock(mutex_);
      completions_["vet"].push_back(Completion{Result{std::nullopt, std::move(error)}, true, {}});
    }
    VelaMainThread::stop();
  });
  EXPECT_EQ(completionCount(), 0U) << "completed inside the call";
  ASSERT_TRUE(awaitCompletions(1));
  EXPECT_EQ(only("vet").result.error, session_->vetEmailAccount(std::nullopt));
  EXPECT_TRUE(callsTo(member::kVetEmailAccount.name).empty());
}

// A host executor that keeps what it is handed, for the test to run.
class HeldTasks {
 public:
  VelaMainThread::Executor executor() {
    return [this](VelaMainThread::Task task) {
      {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
      }
      handed_.notify_all();
    };
  }

  bool awaitHanded(std::size_t count) {
    std::unique_lock lock(mutex_);
    return handed_.wait_for(lock, kReplyTimeLimit * 2, [&] { return tasks_.size() >= count; });
  }

  // Runs them on a thread of their own, as a host's loop would.
  void runElsewhere() {
    std::deque<VelaMainThread::Task> tasks;
    {
      std::lock_guard lock(mutex_);
      tasks.swap(tasks_);
    }
    std::thread([&tasks] {
      for (auto& task : tasks) task();
    }).join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable handed_;
  std::deque<VelaMainThread::Task> tasks_;
};

TEST_F(ANonBlockingTwin, RunsThroughTheHostsExecutor) {
  HeldTasks held;
  session_->setCompletionExecutor(held.executor());
  const auto operations = queries();
  callTwins(operations);
  ASSERT_TRUE(held.awaitHanded(operations.size()));
  EXPECT_EQ(completionCount(), 0U);
  held.runElsewhere();
  EXPECT_EQ(completionCount(), operations.size());
  for (const auto& operation : operations) EXPECT_FALSE(only(operation.label).onMainThread) << operation.label;
}

TEST_F(ANonBlockingTwin, NeverCompletesOnceTheSessionIsDestroyed) {
  HeldTasks held;
  session_->setCompletionExecutor(held.executor());
  const auto operations = everyTwin();
  behaveForAll(operations, {.mode = "never"});
  callTwins(operations);
  // One completion is handed over before the session goes, and run after.
  behave(member::kGetKithDeviceId.name, "normal");
  callTwins({queries()[0]});
  ASSERT_TRUE(held.awaitHanded(1));
  session_.reset();
  // Destroying the session fails the calls in flight at once.
  ASSERT_TRUE(held.awaitHanded(operations.size() + 1));
  held.runElsewhere();
  EXPECT_EQ(completionCount(), 0U);
}

}  // namespace
}  // namespace vela::testing
