// SPDX-License-Identifier: MIT
#include "session/connection_queue.h"

#include <mutex>

namespace vela::session {
namespace {

constexpr const char* kQueueLabel = "com.zentrex.VelaNotification.linkConnectionCreationQueue";

struct QueueHolder {
  std::mutex mutex;
  std::shared_ptr<dispatch::SerialQueue> queue;  // guarded by mutex
};

// Never destroyed: sessions may still create connections while the process
// runs its exit handlers.
QueueHolder& holder() {
  static auto* const instance = new QueueHolder();  // NOLINT(*-owning-memory,*-avoid-non-const-global-variables)
  return *instance;
}

}  // namespace

void replaceConnectionCreationQueue() {
  auto fresh = std::make_shared<dispatch::SerialQueue>(kQueueLabel);
  std::lock_guard lock(holder().mutex);
  // A session inside the old queue keeps it alive until it is done.
  holder().queue = std::move(fresh);
}

std::shared_ptr<dispatch::SerialQueue> connectionCreationQueue() {
  std::lock_guard lock(holder().mutex);
  if (!holder().queue) holder().queue = std::make_shared<dispatch::SerialQueue>(kQueueLabel);
  return holder().queue;
}

}  // namespace vela::session
