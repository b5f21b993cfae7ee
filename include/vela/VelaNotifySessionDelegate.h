// SPDX-License-Identifier: MIT
#pragma once

#include <optional>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

// Receives the outcome of an e-mail vetting started with
// VelaNotifySession::vetEmailAccount. Both methods run on the main thread,
// through the main-thread executor, queued after the notification that caused
// them. The default bodies do nothing.
class VelaNotifySessionDelegate {
 public:
  virtual ~VelaNotifySessionDelegate() = default;

  // Once for each batch of results the daemon posts; `results` is passed on
  // uninspected (nullopt when the daemon sent none).
  virtual void vettingResultsDidArrive(const std::optional<VelaValue>& results) { (void)results; }

  // Once when the vetting ends; nullopt when it ended without error.
  virtual void vettingDidFinishWithError(const std::optional<VelaError>& error) { (void)error; }
};
