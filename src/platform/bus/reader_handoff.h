// SPDX-License-Identifier: MIT
#pragma once

// Who reads the bus, and how a synchronous caller waits for its answer.
//
// A caller that finds nobody reading the bus reads it itself until its own
// answer has been dispatched, so its call costs one wake-up, as a bare
// blocking call does. Meanwhile other callers sleep without the bus; the
// reader hands each its answer, or hands the bus over to the next one still
// waiting when it is done. The connection's thread reads only when nobody
// else does and something besides synchronous callers awaits the bus; it
// is never woken for a caller's answer.

#include <chrono>
#include <memory>
#include <mutex>

#include "platform/bus/connection_core.h"

namespace vela::bus::detail {

class Link;

// What a synchronous caller holding the bus does with its request.
enum class CallerRole {
  kBehindQueue,  // work queued for the connection's thread goes first: the request joins it
  kReader,       // it sends, then reads the bus for its answer
  kFollower,     // it sends, then sleeps while another reads the bus for it
};

// Decides a caller's role, with the bus held and before it sends: a
// follower is registered as waiting at once. Taken in one go, under the
// core's mutex, so that each call takes that lock once on its way out.
CallerRole claimRole(NamedConnection::Core& core, const std::shared_ptr<Waiter>& waiter);

// Called with the bus held, after `waiter`'s request was sent, as the
// `role` claimRole() gave: reads the bus for it as the reader, else sleeps
// until someone hands over its answer or the bus. Returns by `deadline`
// whatever other threads are doing, with `busLock` released; an empty
// outcome means the deadline passed.
NamedConnection::CallOutcome awaitAnswer(NamedConnection::Core& core, const std::shared_ptr<Waiter>& waiter,
                                         CallerRole role, std::chrono::steady_clock::time_point deadline,
                                         std::unique_lock<SpinningMutex>& busLock);

// A reader or follower whose request never left gives up its role (a
// reader hands the bus on, a follower is never handed it), then lets go of
// the bus.
void dropRole(NamedConnection::Core& core, Waiter& waiter, CallerRole role, std::unique_lock<SpinningMutex>& busLock);

// Sleeps, without the bus, until `waiter` is answered, handed the bus, or
// `deadline` passes. For a caller whose request the connection's thread sends.
NamedConnection::CallOutcome awaitAsFollower(NamedConnection::Core& core, const std::shared_ptr<Waiter>& waiter,
                                             std::chrono::steady_clock::time_point deadline);

// The current reader lets go of the bus: to the first caller still waiting,
// who joins `wakes`, or to nobody, in which case the connection's thread
// watches the bus from now on if anything else awaits it. `link` is null
// when the reader no longer holds busMutex (its deadline passed while
// another thread had it): the connection's thread is then woken to look
// for itself.
void releaseReader(NamedConnection::Core& core, Link* link, Wakes& wakes);

// Lets go of the bus, then wakes the callers answered or handed the bus
// while it was held, but for `awake`, the caller letting go.
void unlockBus(Link* link, std::unique_lock<SpinningMutex>& busLock, Wakes& wakes, const Waiter* awake = nullptr);

// Points the connection's thread at the bus, or away from it. Under the
// core's mutex.
void armLoop(NamedConnection::Core& core, int fd, int pollEvents);
void disarmLoop(NamedConnection::Core& core);

}  // namespace vela::bus::detail
