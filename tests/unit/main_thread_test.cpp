// SPDX-License-Identifier: MIT
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <vela/VelaMainThread.h>

namespace {

using namespace std::chrono_literals;
using Task = VelaMainThread::Task;

// The loop is process-wide: every case leaves it with no executor, nothing
// queued and no stop pending.
class AMainThread : public ::testing::Test {
 protected:
  void TearDown() override {
    VelaMainThread::setExecutor({});
    VelaMainThread::runFor(0ms);
    VelaMainThread::perform(VelaMainThread::stop);
    VelaMainThread::run();
  }
};

// Stands in for a host's loop: keeps what its executor is handed until the
// test runs it on the test thread.
struct HostQueue {
  std::mutex mutex;
  std::deque<Task> tasks;  // guarded by mutex

  VelaMainThread::Executor executor() {
    return [this](Task task) {
      std::lock_guard lock(mutex);
      tasks.push_back(std::move(task));
    };
  }
  void drain() {
    for (;;) {
      Task task;
      {
        std::lock_guard lock(mutex);
        if (tasks.empty()) return;
        task = std::move(tasks.front());
        tasks.pop_front();
      }
      task();
    }
  }
};

TEST_F(AMainThread, RunsTasksInQueueOrderAndNeverInline) {
  std::vector<int> order;
  VelaMainThread::perform([&] {
    order.push_back(1);
    VelaMainThread::perform([&] {
      order.push_back(4);
      VelaMainThread::stop();
    });
    order.push_back(2);
  });
  VelaMainThread::perform([&] { order.push_back(3); });
  EXPECT_TRUE(order.empty());
  VelaMainThread::run();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(AMainThread, StopIsNeverLost) {
  // Whether stop() lands before run() starts or while it waits, run() returns.
  for (int i = 0; i < 200; ++i) {
    std::jthread stopper(VelaMainThread::stop);
    VelaMainThread::run();
  }
  bool first = false;
  bool second = false;
  VelaMainThread::perform([&] { first = true; });
  VelaMainThread::stop();
  VelaMainThread::run();
  EXPECT_FALSE(first) << "a stop made before run() ends it before any task";

  // A stop from a task ends the run after that task; the rest stays queued.
  VelaMainThread::perform(VelaMainThread::stop);
  VelaMainThread::perform([&] { second = true; });
  VelaMainThread::run();
  EXPECT_TRUE(first);
  EXPECT_FALSE(second);
  EXPECT_FALSE(VelaMainThread::runFor(0ms)) << "the stop was taken by the run it ended";
  VelaMainThread::perform(VelaMainThread::stop);
  VelaMainThread::run();
  EXPECT_TRUE(second);
}

TEST_F(AMainThread, RunForReturnsAtItsDeadlineEvenWhileBusy) {
  EXPECT_FALSE(VelaMainThread::runFor(10ms));

  int spins = 0;
  bool spinning = true;
  std::function<void()> spin = [&] {
    ++spins;
    if (spinning) VelaMainThread::perform(spin);
  };
  VelaMainThread::perform(spin);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(VelaMainThread::runFor(20ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  EXPECT_GT(spins, 1);

  spinning = false;
  VelaMainThread::perform(VelaMainThread::stop);
  EXPECT_TRUE(VelaMainThread::runFor(std::chrono::milliseconds::max()));
}

TEST_F(AMainThread, SurvivesThrowingTasksAndExecutors) {
  std::vector<int> order;
  VelaMainThread::perform([] { throw std::runtime_error("dropped"); });
  VelaMainThread::perform([&] {
    order.push_back(1);
    VelaMainThread::stop();
  });
  VelaMainThread::run();

  // A task the executor refuses runs before the next one it accepts.
  HostQueue host;
  bool refuse = true;
  VelaMainThread::setExecutor([&, accept = host.executor()](Task task) {
    if (std::exchange(refuse, false)) throw std::runtime_error("full");
    accept(std::move(task));
  });
  VelaMainThread::perform([&] {
    order.push_back(2);
    throw std::logic_error("dropped");
  });
  VelaMainThread::perform([&] { order.push_back(3); });
  host.drain();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(AMainThread, HandsWaitingTasksToAnExecutorAndBackInOrder) {
  std::vector<int> order;
  const auto record = [&](int n) { return [&order, n] { order.push_back(n); }; };
  VelaMainThread::perform(record(1));
  VelaMainThread::perform(record(2));
  HostQueue host;
  VelaMainThread::setExecutor(host.executor());
  VelaMainThread::perform(record(3));
  EXPECT_TRUE(order.empty());
  host.drain();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

  // Handed to the executor but not run yet: the default loop runs it, once.
  VelaMainThread::perform(record(4));
  VelaMainThread::setExecutor({});
  VelaMainThread::perform(record(5));
  VelaMainThread::perform(VelaMainThread::stop);
  VelaMainThread::run();
  host.drain();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST_F(AMainThread, RunsTasksFromManyThreadsOnceInOrderAcrossExecutorChanges) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 2000;
  const auto mainThread = std::this_thread::get_id();
  std::vector<int> next(kThreads, 0);  // touched on the main thread only
  int misplaced = 0;
  std::atomic<int> done{0};
  HostQueue a;
  HostQueue b;
  {
    std::vector<std::jthread> producers;
    for (int t = 0; t < kThreads; ++t) {
      producers.emplace_back([&, t] {
        for (int i = 0; i < kTasks; ++i) {
          VelaMainThread::perform([&, t, i] {
            if (next[t]++ != i || std::this_thread::get_id() != mainThread) ++misplaced;
            done.fetch_add(1);
          });
        }
      });
    }
    // Cycles through two hosts and the default loop while the producers
    // queue; each host's leftover closures run after it was replaced.
    for (int round = 0; done.load() < kThreads * kTasks; ++round) {
      if (round % 3 == 2) {
        VelaMainThread::setExecutor({});
        VelaMainThread::perform(VelaMainThread::stop);
        VelaMainThread::run();
      } else {
        VelaMainThread::setExecutor((round % 3 == 0 ? a : b).executor());
      }
      a.drain();
      b.drain();
    }
  }
  EXPECT_EQ(misplaced, 0);
  EXPECT_EQ(next, std::vector<int>(kThreads, kTasks));
}

TEST_F(AMainThread, ForkedChildRunsTheLoopWhateverParentThreadsHeld) {
  // In the parent one thread keeps queueing while another runs the loop, so
  // fork() finds the lock taken and the condition variable waited on.
  std::jthread loop(VelaMainThread::run);
  struct StopLoop {
    ~StopLoop() { VelaMainThread::stop(); }
  } stopLoop;
  std::jthread producer([](const std::stop_token& token) {
    while (!token.stop_requested()) VelaMainThread::perform([] {});
  });
  for (int i = 0; i < 20; ++i) {
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
      alarm(30);  // a deadlock ends the child instead of the test run
      bool ran = false;
      VelaMainThread::perform([&] {
        ran = true;
        VelaMainThread::stop();
      });
      VelaMainThread::run();
      _exit(ran ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  }
}

}  // namespace
