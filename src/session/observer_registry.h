// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <vela/VelaNotifySession.h>

#include "platform/notify/distributed_center.h"

namespace vela::session {

// One session's notification centers and the host's observers on them.
//
// A session has one center per name, shared by the host's observers and
// the e-mail vetting, because a connection carries one listener per center.
// An observer is a registration on an in-process center: the center's own
// for the connection's thread, the default one for the main thread. Its key
// lives here, so the registration ends when it is removed or when the
// registry goes with its session.
//
// THREADING: every member may be called from any thread, and from inside a
// handler.
class ObserverRegistry {
 public:
  using Thread = VelaNotifySession::ObserverThread;
  using Token = VelaNotifySession::ObserverToken;

  // The center named `name`, made on first use.
  std::shared_ptr<notify::DistributedCenter> center(std::string_view name);

  // Every center made so far: each listens on every new connection.
  std::vector<std::shared_ptr<notify::DistributedCenter>> centers() const;

  // Registers `handler` for `name` on `center`; never 0.
  Token add(const std::shared_ptr<notify::DistributedCenter>& center, const std::string& name, Thread thread,
            VelaNotifySession::NotificationHandler handler);

  // Ends the observer; false when there is none. Waits as
  // NotificationCenter::removeObserver does.
  bool remove(Token token);

  // Whether any observer is registered.
  bool empty() const;

 private:
  struct Entry {
    std::shared_ptr<notify::DistributedCenter> center;
    Thread thread = Thread::kMainThread;
    std::shared_ptr<const int> key;  // the registration's observer
  };

  static notify::NotificationCenter& hub(notify::DistributedCenter& center, Thread thread);

  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<notify::DistributedCenter>, std::less<>> centers_;  // guarded by mutex_
  std::unordered_map<Token, Entry> entries_;                                                // guarded by mutex_
  Token lastToken_ = 0;                                                                     // guarded by mutex_
};

}  // namespace vela::session
