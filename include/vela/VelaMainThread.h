// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>

#include <vela/VelaExport.h>

// The process's main thread, as the library sees it: the one place where work
// that must "run on the main thread" is queued, in order, and run later.
//
// THREADING
// Two ways to drive it, chosen by the host:
//  - The default loop. A plain host calls run() or runFor() on the thread it
//    calls its main thread; queued tasks run there, one at a time, in the
//    order they were queued.
//  - A host executor. A host that already runs an event loop (GLib, Qt,
//    sd-event) calls setExecutor() once; from then on each task is handed to
//    that executor, which runs it on the host's loop. run() is then not needed.
// Either way a task never runs inside the perform() call that queued it, and
// tasks run one at a time in the order they were queued.
//
// FAILURE
// Nothing here throws. A task that throws is abandoned at that point and the
// exception dropped; the tasks after it still run.
//
// FORK
// perform(), setExecutor(), run(), runFor() and stop() stay usable in a child
// made by fork(), whatever other threads of the parent were doing. Tasks that
// were waiting in the parent are waiting in the child as well.
//
// EXAMPLE
//   // Plain host: the main function drives the loop.
//   VelaMainThread::perform([] { startWork(); });
//   VelaMainThread::run();  // until some task calls VelaMainThread::stop()
//
//   // GLib host (see the executor contract on setExecutor). An idle source,
//   // not g_main_context_invoke(), which runs at once on the loop's thread.
//   VelaMainThread::setExecutor([context](VelaMainThread::Task task) {
//     attachIdleSourceRunning(context, std::move(task));
//   });
class VELA_EXPORT VelaMainThread {
 public:
  using Task = std::function<void()>;
  using Executor = std::function<void(Task)>;

  VelaMainThread() = delete;

  // Queues `task` to run on the main thread after every task queued before it.
  // Never runs it inline, even when called on the main thread (from a task, it
  // runs after the running task returns). An empty task is ignored.
  // Blocks: no (only briefly for the queue's lock; with a host executor, for
  // as long as that executor takes to accept the task).  Thread: any.
  static void perform(Task task);

  // Hands every later task to `executor`. Tasks already waiting are handed
  // over first, in order; a task that is running meanwhile finishes where it
  // is. An empty executor goes back to the default loop, which then also runs
  // whatever the previous executor had not run yet.
  //
  // The executor is called on the thread that queued the task (or here, for
  // the handover) and must run the task it is given later, exactly once, on
  // the host's main thread, one at a time and in the order it was given them;
  // it must not run it before returning. An executor that throws, or that
  // drops a task without running it, loses nothing: the tasks it refused run
  // before the next task it does run, or in the default loop or the next
  // executor. What a replaced executor runs after its replacement does
  // nothing.
  // Thread: any.
  static void setExecutor(Executor executor);

  // The default loop: runs queued tasks on the calling thread, which thereby
  // is the main thread, until stop(). Tasks queued meanwhile, including by
  // the running task, run in the same run. Returns at once, running nothing,
  // when a stop() came while no loop was running. While a host executor is
  // installed it runs nothing and only waits for stop(). Called from a task,
  // it runs a nested loop that the next stop() ends.
  // Blocks: until stop().  Thread: the host's main thread, one at a time.
  static void run();

  // As run(), but returns after `timeout` at the latest (or once the task it
  // is running then returns). True when stop() ended it, false on time-out.
  // Blocks: up to `timeout` plus the running task.  Thread: as run().
  static bool runFor(std::chrono::milliseconds timeout);

  // Ends the running run()/runFor() once the task it is running returns; the
  // tasks still queued stay queued for the next run. A stop() while no loop
  // runs ends the next one at once, so a stop() racing the start of run() is
  // not lost. Several stop() calls before a loop sees them count as one.
  // Thread: any.
  static void stop();
};
