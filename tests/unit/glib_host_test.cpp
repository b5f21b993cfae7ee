// SPDX-License-Identifier: MIT
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <glib.h>
#include <gtest/gtest.h>

#include <vela/VelaMainThread.h>

#if defined(__SANITIZE_THREAD__)
// GLib is not built with ThreadSanitizer: its own locking is invisible to it,
// so what GLib allocates and frees under that locking would read as racing.
// Memory of ours never travels through GLib (see the executor below).
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libglib-2.0.so.0\n"; }
#endif

namespace {

using Task = VelaMainThread::Task;

// A host whose main thread runs a GLib loop and installs the executor a GLib
// application would: one idle source per task, attached to the loop's context.
// An idle source rather than g_main_context_invoke(), which runs the task at
// once when called on the loop's own thread.
class AGLibHost : public ::testing::Test {
 protected:
  void SetUp() override {
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    VelaMainThread::setExecutor([this](Task task) {
      // The task crosses threads through a mutex ThreadSanitizer sees; the
      // source only wakes the loop.
      {
        std::lock_guard lock(mutex_);
        handed_.push_back(std::move(task));
      }
      GSource* source = g_idle_source_new();
      g_source_set_callback(source, &AGLibHost::runOne, this, nullptr);
      g_source_attach(source, context_);
      g_source_unref(source);
    });
  }
  void TearDown() override {
    VelaMainThread::setExecutor({});
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  static gboolean runOne(gpointer self) {
    auto& host = *static_cast<AGLibHost*>(self);
    Task task;
    {
      std::lock_guard lock(host.mutex_);
      task = std::move(host.handed_.front());
      host.handed_.pop_front();
    }
    task();
    return G_SOURCE_REMOVE;
  }

  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  std::mutex mutex_;
  std::deque<Task> handed_;  // guarded by mutex_
};

TEST_F(AGLibHost, RunsTasksOnTheLoopThreadInOrderAndNeverInline) {
  constexpr int kThreads = 3;
  constexpr int kTasks = 500;
  const auto loopThread = std::this_thread::get_id();
  std::vector<int> next(kThreads, 0);  // touched on the loop thread only
  int misplaced = 0;
  int done = 0;
  const auto finished = [&] {
    if (std::this_thread::get_id() != loopThread) ++misplaced;
    if (++done == kThreads * kTasks + 1) g_main_loop_quit(loop_);
  };
  // Performed on the loop thread: runs after the task that queued it returns.
  bool outerReturned = false;
  VelaMainThread::perform([&] {
    VelaMainThread::perform([&] {
      if (!outerReturned) ++misplaced;
      finished();
    });
    outerReturned = true;
  });
  std::vector<std::jthread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kTasks; ++i) {
        VelaMainThread::perform([&, t, i] {
          if (next[t]++ != i) ++misplaced;
          finished();
        });
      }
    });
  }
  g_main_loop_run(loop_);
  producers.clear();
  EXPECT_EQ(misplaced, 0);
}

}  // namespace
