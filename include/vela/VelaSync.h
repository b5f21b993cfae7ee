// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <vela/VelaError.h>
#include <vela/VelaExport.h>
#include <vela/VelaNotificationHandsetActions.h>
#include <vela/VelaSemaphore.h>

class VelaNotifySession;

// The code of the error the most recent synchronous operation ended with, or 0.
// One value for the whole process, last writer wins: read it right after a
// call, on a thread that has no other call in flight. Relaxed atomic, so that
// concurrent use is merely meaningless, never undefined.
extern VELA_EXPORT std::atomic<std::intptr_t> velaLastOperationResult;  // NOLINT(*-avoid-non-const-global-variables)

// Handler a proxy runs when its request cannot be carried.
using VelaProxyErrorHandler = std::function<void(const VelaError& error)>;

// The three published building blocks of a synchronous call. The session's own
// operations use the same machinery internally.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

// Waits at most 5 seconds (from this call) for the semaphore, then drops the
// caller's reference. Whether it was signalled is not reported: callers learn
// that from their own reply state. Blocks: up to 5 s. Thread: any but the
// connection's.
VELA_EXPORT void __VELA_WAIT_SYNC(std::shared_ptr<VelaSemaphore> semaphore);

// Signals the semaphore; does nothing for nullptr. Thread: any.
VELA_EXPORT void __VELA_SIGNAL_SYNC(const std::shared_ptr<VelaSemaphore>& semaphore);

// The session's current connection's proxy, whose error handler first calls
// `innerHandler` (if set) with the error and then signals `semaphore` (if
// set). The label only names the operation. Returns nullptr for a null
// session. Thread: any.
VELA_EXPORT std::shared_ptr<VelaNotificationHandsetActions> __VELA_LINK_OBJ(
    const std::shared_ptr<VelaNotifySession>& session, std::shared_ptr<VelaSemaphore> semaphore, std::string_view label,
    VelaProxyErrorHandler innerHandler);

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
