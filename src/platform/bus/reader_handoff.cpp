// SPDX-License-Identifier: MIT
#include "platform/bus/reader_handoff.h"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <limits>
#include <optional>

#include "platform/bus/bus_link.h"

namespace vela::bus::detail {
namespace {

using Clock = std::chrono::steady_clock;
using Core = NamedConnection::Core;
using CallOutcome = NamedConnection::CallOutcome;

// The caller gives up: whatever came in time is still its answer.
[[gnu::hot]] CallOutcome finish(Core& core, Waiter& waiter) {
  if (waiter.abandon()) core.abandonedCalls.fetch_add(1, std::memory_order_relaxed);
  return waiter.takeOutcome();
}

// Another thread holds the bus past the caller's deadline: the caller leaves
// the reading to others without waiting for it.
CallOutcome giveUpReading(Core& core, Waiter& waiter) {
  Wakes& wakes = Wakes::ofThisThread();
  releaseReader(core, nullptr, wakes);
  wakes.run();
  return finish(core, waiter);
}

// Reads the bus, holding the reader role and `busLock`, until `waiter` is
// answered or `deadline` passes.
[[gnu::hot]] CallOutcome readUntilAnswered(Core& core, Waiter& waiter, Clock::time_point deadline,
                                           std::unique_lock<SpinningMutex>& busLock, bool justSent) {
  // A request sent a moment ago cannot have been answered yet: unless
  // something already read waits to be dispatched, the first read would
  // find nothing, so the caller sleeps on the bus first.
  bool readNow = !justSent || (core.link != nullptr && core.link->hasUndispatched());
  Wakes& wakes = Wakes::ofThisThread();
  for (;;) {
    Link* link = core.link;
    if (link == nullptr) break;
    if (core.takeAbandoned()) link->dropAbandoned();
    bool alive = true;
    // Answers read along with this one go to their callers now, rather than
    // each waiting for the bus to be handed to it; what has not arrived yet
    // is left to the next reader.
    if (readNow) alive = link->process([&waiter, link] { return waiter.answered() && !link->hasUndispatched(); });
    readNow = true;
    if (waiter.answered()) break;
    int fd = -1;
    int events = 0;
    std::uint64_t busTimeout = UINT64_MAX;
    if (!alive || !link->pollSpec(fd, events, busTimeout)) break;
    const Clock::time_point now = Clock::now();
    if (now >= deadline) break;
    std::array<pollfd, 2> fds{pollfd{fd, static_cast<decltype(pollfd::events)>(events), 0},
                              pollfd{core.readerWakeFd, POLLIN, 0}};
    const int timeout = sleepTimeoutMs(busTimeout, deadline, now);
    unlockBus(link, busLock, wakes);
    (void)::poll(fds.data(), fds.size(), timeout);
    if ((fds[1].revents & POLLIN) != 0) Core::consumeFd(core.readerWakeFd);
    if (!busLock.try_lock_until(deadline)) return giveUpReading(core, waiter);
  }
  releaseReader(core, core.link, wakes);
  unlockBus(core.link, busLock, wakes, &waiter);
  return finish(core, waiter);
}

std::uint32_t epollEvents(int pollEvents) {
  std::uint32_t events = 0;
  if ((pollEvents & POLLIN) != 0) events |= EPOLLIN;
  if ((pollEvents & POLLOUT) != 0) events |= EPOLLOUT;
  return events;
}

}  // namespace

void armLoop(Core& core, int fd, int pollEvents) {
  const std::uint32_t events = epollEvents(pollEvents);
  if (core.armedBusFd == fd && core.armedEvents == events) return;
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  const int op = core.armedBusFd == fd ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (core.armedBusFd >= 0 && core.armedBusFd != fd)
    (void)epoll_ctl(core.epollFd, EPOLL_CTL_DEL, core.armedBusFd, nullptr);
  if (epoll_ctl(core.epollFd, op, fd, &event) == 0) {
    core.armedBusFd = fd;
    core.armedEvents = events;
  }
}

void disarmLoop(Core& core) {
  if (core.armedEvents == 0) return;
  epoll_event event{};
  event.data.fd = core.armedBusFd;
  // With no events asked for, only a hang-up or an error still wakes the
  // loop, and both are its business.
  if (epoll_ctl(core.epollFd, EPOLL_CTL_MOD, core.armedBusFd, &event) == 0) core.armedEvents = 0;
}

[[gnu::hot]] void unlockBus(Link* link, std::unique_lock<SpinningMutex>& busLock, Wakes& wakes, const Waiter* awake) {
  if (link != nullptr) link->takeAnswered(wakes);
  busLock.unlock();
  wakes.run(awake);
}

[[gnu::hot]] void releaseReader(Core& core, Link* link, Wakes& wakes) {
  bool wakeLoop = false;
  {
    std::lock_guard lock(core.mutex);
    while (!core.waiting.empty()) {
      std::shared_ptr<Waiter> next = std::move(core.waiting.front());
      core.waiting.pop_front();
      // The bus passes at once, so that no newcomer takes it meanwhile.
      if (next->handBus()) {
        core.reader = Reader::kCaller;
        wakes.add(std::move(next));
        return;
      }
    }
    core.reader = Reader::kNone;
    if (link == nullptr || link->hasUndispatched()) {
      wakeLoop = true;
    } else if (link->awaitsBackground()) {
      int fd = -1;
      int events = 0;
      std::uint64_t timeout = UINT64_MAX;
      if (link->pollSpec(fd, events, timeout)) armLoop(core, fd, events);
    }
  }
  if (wakeLoop) core.wake();
}

[[gnu::hot]] CallerRole claimRole(Core& core, const std::shared_ptr<Waiter>& waiter) {
  std::lock_guard lock(core.mutex);
  if (core.hasQueuedWork()) return CallerRole::kBehindQueue;
  if (core.reader == Reader::kNone) {
    core.reader = Reader::kCaller;
    disarmLoop(core);
    return CallerRole::kReader;
  }
  core.waiting.push_back(waiter);
  return CallerRole::kFollower;
}

[[gnu::hot]] CallOutcome awaitAnswer(Core& core, const std::shared_ptr<Waiter>& waiter, CallerRole role,
                                     Clock::time_point deadline, std::unique_lock<SpinningMutex>& busLock) {
  if (role == CallerRole::kReader) return readUntilAnswered(core, *waiter, deadline, busLock, true);
  busLock.unlock();
  return awaitAsFollower(core, waiter, deadline);
}

void dropRole(Core& core, Waiter& waiter, CallerRole role, std::unique_lock<SpinningMutex>& busLock) {
  Wakes& wakes = Wakes::ofThisThread();
  if (role == CallerRole::kReader) {
    releaseReader(core, core.link, wakes);
  } else {
    // Left in the queue, it is passed over once it no longer waits.
    (void)waiter.abandon();
  }
  unlockBus(core.link, busLock, wakes, &waiter);
}

CallOutcome awaitAsFollower(Core& core, const std::shared_ptr<Waiter>& waiter, Clock::time_point deadline) {
  switch (waiter->sleepUntil(deadline)) {
    case Waiter::Woken::kAnswered:
      return waiter->takeOutcome();
    case Waiter::Woken::kDeadline:
      core.abandonedCalls.fetch_add(1, std::memory_order_relaxed);
      return {};
    case Waiter::Woken::kGivenBus:
      break;
  }
  std::unique_lock busLock(core.busMutex, std::defer_lock);
  if (!busLock.try_lock_until(deadline)) return giveUpReading(core, *waiter);
  return readUntilAnswered(core, *waiter, deadline, busLock, false);
}

}  // namespace vela::bus::detail
