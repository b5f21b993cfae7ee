// SPDX-License-Identifier: MIT
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>

#include "authorizer.h"
#include "handset_actions.h"
#include "service_host.h"
#include "testing_interface.h"

namespace vela::daemon {

// Takes HandsetActions calls off the bus: refuses malformed requests, asks
// the authorizer whether the caller may make the call, lets the Testing
// interface (when there is one) log the call and choose how to misbehave,
// and sends the answer.
//
// A caller's calls are carried out in the order it sent them: while one waits
// for polkit, the caller's later calls wait behind it; other callers' do not.
class HandsetService {
 public:
  // `testing` may be nullptr (no --testing). All must outlive this.
  HandsetService(ServiceHost& host, HandsetActions& actions, Authorizer& authorizer, TestingInterface* testing)
      : host_(host), actions_(actions), authorizer_(authorizer), testing_(testing) {}

  void callArrived(IncomingCall call);

  // `sender` has left the bus: it is forgotten, and its topics end.
  void callerLeft(const std::string& sender);

 private:
  struct Waiting {
    std::deque<IncomingCall> calls;
    // The first call's authorization is under way.
    bool checking = false;
  };

  // Puts the callers' first waiting calls to the authorizer, one at a time,
  // until one has to wait for an answer.
  void admitNext(const std::string& sender);
  // Takes the first waiting call of `sender` and answers it as `verdict` says.
  void decided(const std::string& sender, Verdict verdict, const std::optional<Credentials>& caller);
  // Answers with `error`, or drops a call that expects no answer; both logged.
  static void refuse(IncomingCall& call, const VelaError& error, const std::optional<Credentials>& caller);
  void perform(IncomingCall& call, const Caller& caller);
  void carryOut(const Behavior& behavior, IncomingCall& call, const Caller& caller);

  ServiceHost& host_;
  HandsetActions& actions_;
  Authorizer& authorizer_;
  TestingInterface* testing_;
  std::map<std::string, Waiting, std::less<>> waiting_;
};

}  // namespace vela::daemon
