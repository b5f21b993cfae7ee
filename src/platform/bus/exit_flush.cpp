// SPDX-License-Identifier: MIT
#include "platform/bus/exit_flush.h"

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/bus/bus_link.h"

namespace vela::bus::detail {
namespace {

// How long exit() waits, in all, for requests sent without a reply to leave.
constexpr std::chrono::milliseconds kExitFlushLimit{1000};

// Connections that exit() lets write what they hold first.
struct LiveConnections {
  std::mutex mutex;
  std::vector<std::weak_ptr<NamedConnection::Core>> cores;  // guarded by mutex
};

LiveConnections& liveConnections() {
  // Never destroyed: exit handlers and static destructors run in any order.
  static auto* const live = new LiveConnections();  // NOLINT(*-owning-memory,*-avoid-non-const-global-variables)
  return *live;
}

// Writes what `core`'s bus still holds from this thread, when nothing is
// queued for the connection's thread and no caller holds the bus: exiting
// then costs no wake-up of that thread. False when the thread must do it.
bool flushHere(NamedConnection::Core& core) {
  if (!core.queueEmpty()) return false;
  std::unique_lock bus(core.busMutex, std::try_to_lock);
  if (!bus.owns_lock()) return false;
  if (core.link != nullptr) core.link->flush();
  return true;
}

// A request sent without a reply returns before it leaves the process, so a
// host that exits right after one would lose it. exit() gives every
// connection's thread a bounded moment to write what it was given.
void flushAtExit() {
  std::vector<std::shared_ptr<NamedConnection::Core>> cores;
  {
    std::lock_guard lock(liveConnections().mutex);
    for (const auto& weak : liveConnections().cores) {
      if (auto core = weak.lock()) cores.push_back(std::move(core));
    }
  }
  const auto deadline = std::chrono::steady_clock::now() + kExitFlushLimit;
  std::vector<std::shared_ptr<ExitFlush>> waits;
  for (const auto& core : cores) {
    // Not its own loop, whose thread is this one; not one inherited across
    // fork(), or one that could not be set up: neither has a loop to wait for.
    if (core.get() == loopOfThisThread || core->generation != forkGeneration.load() || core->wakeFd < 0) continue;
    if (flushHere(*core)) continue;
    // A connection whose thread has ended holds nothing more to write.
    if (auto flush = std::make_shared<ExitFlush>(); core->queueExitFlush(flush)) waits.push_back(std::move(flush));
  }
  for (const auto& flush : waits) {
    std::unique_lock lock(flush->mutex);
    flush->written.wait_until(lock, deadline, [&flush] { return flush->done; });
  }
}

}  // namespace

void registerForExitFlush(const std::shared_ptr<NamedConnection::Core>& core) {
  static std::once_flag once;
  // Without the handler, queued requests may be lost at exit; nothing else goes wrong.
  std::call_once(once, [] { (void)std::atexit(flushAtExit); });
  std::lock_guard lock(liveConnections().mutex);
  auto& cores = liveConnections().cores;
  std::erase_if(cores, [](const std::weak_ptr<NamedConnection::Core>& weak) { return weak.expired(); });
  cores.push_back(core);
}

}  // namespace vela::bus::detail
