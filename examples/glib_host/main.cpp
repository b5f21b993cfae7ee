// SPDX-License-Identifier: MIT
// A GLib program that uses VelaNotification without ever blocking its main
// loop: it prints the daemon's locating and lost-mode notifications, switches
// locating with a non-blocking call, and exits once the switch has settled.
//
//   vela_glib_host_example [--toggle | --on | --off]    (default: --toggle)
//
// Exit status: 0 once locating has settled as asked; 1 when the daemon cannot
// be reached, refuses the switch, or locating has not settled within 10
// seconds; 2 for a usage error.
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <glib.h>

#include <vela/VelaNotification.h>

namespace {

// The two settled locating states; any other number means a switch is under way.
constexpr std::int32_t kOff = 1;
constexpr std::int32_t kOn = 2;
// Passed to the daemon unexamined.
constexpr std::int32_t kContext = 0;
// Switching off needs the token of whoever may do so; a real host has it from
// its account. velad insists on one but has nothing to check it against.
constexpr std::string_view kDisableToken = "example-token";
constexpr guint kTimeLimitSeconds = 10;

// The program's state. Only the loop's thread touches it: the observers and
// the completions run there, so it needs no lock.
struct Example {
  std::shared_ptr<VelaNotifySession> session;
  GMainLoop* loop = nullptr;
  std::string_view wanted;             // "--toggle", "--on" or "--off"
  std::int32_t state = 0;              // the latest locating state heard of
  std::optional<std::int32_t> target;  // set once the switch has been asked for
  bool accepted = false;               // the daemon has accepted the switch
  int status = 1;

  void finish(int exitStatus) {
    status = exitStatus;
    g_main_loop_quit(loop);
  }
};

const char* describe(std::int32_t state) {
  switch (state) {
    case kOff:
      return "off";
    case kOn:
      return "on";
    default:
      return "switching";
  }
}

void printError(const char* what, const VelaError& error) {
  g_printerr("%s: %s %lld: %s\n", what, error.domain().c_str(), static_cast<long long>(error.code()),
             error.failureReason().value_or("").c_str());
}

// Done once the daemon has accepted the switch and its state has settled
// there. Either may come first; when locating already was as asked, no
// state change follows at all.
void finishIfSettled(Example& example) {
  if (example.accepted && example.target == example.state) {
    g_print("settled: %s\n", describe(example.state));
    example.finish(0);
  }
}

void requestSwitch(Example& example) {
  const bool on = example.wanted == "--on" || (example.wanted == "--toggle" && example.state == kOff);
  example.target = on ? kOn : kOff;
  g_print("switching locating %s\n", describe(*example.target));
  // The twins return at once; the completion runs later on the main thread,
  // that is on this loop, with what the blocking call would have returned.
  auto completion = [&example](std::optional<VelaError> error) {
    if (error) {
      printError("switch refused", *error);
      example.finish(1);
      return;
    }
    g_print("switch accepted\n");
    example.accepted = true;
    finishIfSettled(example);
  };
  if (on) {
    example.session->enableLocusInContextAsync(kContext, completion);
  } else {
    example.session->disableLocusUsingTokenAsync(std::string(kDisableToken), kContext, completion);
  }
}

// Every locating state heard of, from the first read or a notification.
void onLocusState(Example& example, std::int32_t state) {
  example.state = state;
  g_print("locating: %s (%d)\n", describe(state), state);
  if (state != kOff && state != kOn) return;  // wait for the switch under way to settle
  if (!example.target) {
    requestSwitch(example);
  } else {
    finishIfSettled(example);
  }
}

// The library's main thread is this GLib loop: each task the library queues
// for it is run by an idle source on the default main context. The task
// itself waits in a queue under our own mutex, which thread checkers can see
// (GLib's locking is invisible to them); the source only wakes the loop to
// run the oldest. Idle sources of one priority run in the order they were
// added, so tasks run in the order they were queued, as the library requires.
struct TaskQueue {
  std::mutex mutex;
  std::deque<VelaMainThread::Task> tasks;  // guarded by mutex
};

gboolean runOldestTask(gpointer data) {
  auto& queue = *static_cast<TaskQueue*>(data);
  VelaMainThread::Task task;
  {
    const std::lock_guard lock(queue.mutex);
    task = std::move(queue.tasks.front());
    queue.tasks.pop_front();
  }
  task();
  return G_SOURCE_REMOVE;
}

void installGLibExecutor() {
  // Owned by the executor, which stays installed until the process ends: the
  // library may call it from its own thread up to the very end.
  auto queue = std::make_shared<TaskQueue>();
  VelaMainThread::setExecutor([queue](VelaMainThread::Task task) {
    {
      const std::lock_guard lock(queue->mutex);
      queue->tasks.push_back(std::move(task));
    }
    g_idle_add(runOldestTask, queue.get());
  });
}

}  // namespace

int main(int argc, char** argv) {
  Example example;
  example.wanted = argc > 1 ? std::string_view(argv[1]) : "--toggle";
  if (argc > 2 || (example.wanted != "--toggle" && example.wanted != "--on" && example.wanted != "--off")) {
    g_printerr("usage: %s [--toggle | --on | --off]\n", argv[0]);
    return 2;
  }

  installGLibExecutor();
  example.loop = g_main_loop_new(nullptr, FALSE);
  example.session = VelaNotifySession::init();

  // Observers first, so that no change falls between them and the first read.
  const auto locusObserver = example.session->addObserver(
      kVelaClientNotifyCenter, kLocusStateDidChangeNotification, VelaNotifySession::ObserverThread::kMainThread,
      [&example](const std::string& /*name*/, const VelaDictionary& userInfo) {
        const auto state = userInfo.find(kVelaLocusStateKey);
        const auto number = state != userInfo.end() ? state->second.numberAsInteger() : std::nullopt;
        if (number) onLocusState(example, static_cast<std::int32_t>(*number));
      });
  const auto lostModeObserver = example.session->addObserver(
      kVelaClientNotifyCenter, kLostModeChangedNotification, VelaNotifySession::ObserverThread::kMainThread,
      [](const std::string& /*name*/, const VelaDictionary& userInfo) {
        const auto enabled = userInfo.find(kVelaLostModeEnabledKey);
        if (enabled == userInfo.end()) return;
        if (const bool* on = enabled->second.getIf<bool>()) g_print("lost mode: %s\n", *on ? "on" : "off");
      });

  // The daemon announces its state only when it changes or starts, so read it
  // once. This older call completes on the connection's thread: hop to the loop.
  example.session->locusStateWithCompletion([&example](std::int32_t state, std::optional<VelaError> error) {
    VelaMainThread::perform([&example, state, error = std::move(error)] {
      if (error) {
        printError("cannot read the locating state", *error);
        example.finish(1);
        return;
      }
      onLocusState(example, state);
    });
  });

  g_timeout_add_seconds(
      kTimeLimitSeconds,
      [](gpointer data) {
        g_printerr("locating did not settle within %u seconds\n", kTimeLimitSeconds);
        static_cast<Example*>(data)->finish(1);
        return G_SOURCE_REMOVE;
      },
      &example);

  g_main_loop_run(example.loop);

  // Once removed, an observer's handler is neither running nor will it run.
  example.session->removeObserver(locusObserver);
  example.session->removeObserver(lostModeObserver);
  // No completion starts once the session is gone. What is still attached to
  // the loop (the timer, queued tasks) is never run: the loop does not run again.
  example.session.reset();
  g_main_loop_unref(example.loop);
  return example.status;
}
