// SPDX-License-Identifier: MIT
#pragma once

#include "handset_actions.h"
#include "service_host.h"
#include "testing_interface.h"

namespace vela::daemon {

// Takes HandsetActions calls off the bus: refuses malformed requests, lets
// the Testing interface (when there is one) log the call and choose how to
// misbehave, and sends the answer.
class HandsetService {
 public:
  // `testing` may be nullptr (no --testing). All three must outlive this.
  HandsetService(ServiceHost& host, HandsetActions& actions, TestingInterface* testing)
      : host_(host), actions_(actions), testing_(testing) {}

  void callArrived(IncomingCall call);

 private:
  void carryOut(const Behavior& behavior, IncomingCall& call);

  ServiceHost& host_;
  HandsetActions& actions_;
  TestingInterface* testing_;
};

}  // namespace vela::daemon
