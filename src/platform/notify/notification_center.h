// SPDX-License-Identifier: MIT
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <vela/VelaValue.h>

namespace vela::notify {

struct Notification {
  std::string name;
  const void* sender = nullptr;  // identity only, never dereferenced
  VelaDictionary userInfo;
};

// Delivers notifications posted in this process to the observers registered
// for them, synchronously, on the posting thread.
//
// THREADING
// Every member may be called from any thread, and from inside a handler.
// Handlers run on the thread that posts, outside every lock of the center,
// so they may add, remove and post re-entrantly. A handler runs on several
// threads at once when several threads post.
//
// REMOVAL
// A registration removed before a post reaches it is not run by that post.
// Called outside every handler (of any center), removeObserver() returns only
// once no call of the handlers it removed is under way on any thread, and
// none starts later: what those handlers use may be destroyed right after.
// Called from inside a handler it does not wait, since two handlers removing
// each other would then wait for each other forever: a call that another
// thread's post had already begun may still be under way, or just beginning,
// when it returns; no other call starts. A call further up the calling
// thread's own stack finishes normally. Because of the wait, never remove
// outside a handler while holding a lock that a removed handler takes.
//
// LIFETIME
// Observers are held weakly. A post keeps the observer alive while its handler
// runs, so the observer's last reference may then be released, and the
// observer destroyed, on the posting thread.
class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  // The process's center; never destroyed, so it stays usable from static
  // destructors. Thread: any.
  static NotificationCenter& defaultCenter();

  // A center of its own, unrelated to defaultCenter().
  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;
  NotificationCenter(NotificationCenter&&) = delete;
  NotificationCenter& operator=(NotificationCenter&&) = delete;
  ~NotificationCenter() = default;

  // Adds one registration: `handler` runs for every notification posted with
  // this name whose sender is `sender` (nullptr: any sender). Registrations
  // are not merged: adding the same one twice makes it run twice per post. A
  // registration ends when removed or once `observer` no longer exists. A
  // null observer or an empty handler adds nothing. A post already under way
  // does not run it. Thread: any.
  void addObserver(const std::shared_ptr<const void>& observer, std::string name, const void* sender, Handler handler);

  // Removes every registration of `observer` (compared by address) for `name`
  // and `sender` (exact match: nullptr removes only registrations made for any
  // sender). Blocks: see REMOVAL.  Thread: any.
  void removeObserver(const void* observer, std::string_view name, const void* sender);

  // Removes every registration of `observer`. Blocks: see REMOVAL.
  // Thread: any.
  void removeObserver(const void* observer);

  // Runs the matching handlers on the calling thread, in registration order,
  // outside any lock of the center. A registration removed before its turn,
  // by an earlier handler or by another thread, does not run. A handler's
  // exception is caught and dropped; the later handlers still run.
  // Thread: any.
  void post(const Notification& notification);

  // Number of live registrations: not removed, observer still existing.
  // For diagnostics and tests. Thread: any.
  std::size_t observerCount() const;

 private:
  struct Registration;
  using Registrations = std::vector<std::shared_ptr<Registration>>;

  // Moves the registrations `matches` selects, and the expired ones, out of
  // registrations_, marking them removed. With mutex_ held.
  template <typename Predicate>
  Registrations takeOut(Predicate matches);
  // Waits, unless inside a handler, until no call of `removed` is under way.
  void awaitRunningCalls(std::unique_lock<std::mutex>& lock, const Registrations& removed);

  mutable std::mutex mutex_;
  std::condition_variable idle_;  // a removed registration's last running call returned
  Registrations registrations_;   // guarded by mutex_, in registration order
};

}  // namespace vela::notify
