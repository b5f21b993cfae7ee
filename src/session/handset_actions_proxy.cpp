// SPDX-License-Identifier: MIT
#include "session/handset_actions_proxy.h"

#include "platform/bus/bus_names.h"
#include "records/archive_io.h"
#include "session/handset_wire.h"
#include "session/reply_decoding.h"

namespace vela::session {
namespace {

using wire::key::kAccount;
namespace member = wire::member;
namespace key = wire::key;

// Builds an argument dictionary, leaving nil values out.
class Args {
 public:
  Args& add(std::string_view k, const std::optional<std::string>& value) {
    if (value) dict_.insert_or_assign(std::string(k), *value);
    return *this;
  }
  Args& add(std::string_view k, std::int32_t value) {
    dict_.insert_or_assign(std::string(k), value);
    return *this;
  }
  template <typename Record>
  Args& addRecord(std::string_view k, const std::shared_ptr<Record>& record) {
    if (record) dict_.insert_or_assign(std::string(k), records::archiveRecord(*record));
    return *this;
  }
  VelaDictionary take() { return std::move(dict_); }

 private:
  VelaDictionary dict_;
};

}  // namespace

VelaProxyErrorHandler standardErrorHandler(std::string_view label, VelaProxyErrorHandler inner,
                                           std::shared_ptr<VelaSemaphore> semaphore) {
  // The label only names the operation for whoever reads the code; it has no
  // effect, so the handler does not keep it.
  (void)label;
  return [inner = std::move(inner), semaphore = std::move(semaphore)](const VelaError& error) {
    if (inner) inner(error);
    if (semaphore) semaphore->signal();
  };
}

void HandsetActionsProxy::send(std::string_view memberName, VelaDictionary args,
                               std::function<bool(const VelaDictionary&)> decode) {
  if (!connection_) return;  // no connection: the request goes nowhere
  bus::ReplyHandler onReply;
  if (decode) {
    onReply = [decode = std::move(decode), onError = errorHandler_](const VelaDictionary& reply) {
      if (!decode(reply) && onError) {
        onError(bus::transportError("org.freedesktop.DBus.Error.InconsistentMessage", EBADMSG,
                                    "reply does not match its member's shape"));
      }
    };
  }
  if (waitDeadline_) {
    lastDelivery_ = connection_->callMethodAndWait(bus::kHandsetActionsInterface, memberName, std::move(args),
                                                   std::move(onReply), errorHandler_, reconnect_, *waitDeadline_);
    return;
  }
  connection_->callMethod(bus::kHandsetActionsInterface, memberName, std::move(args), std::move(onReply), errorHandler_,
                          reconnect_);
}

void HandsetActionsProxy::sendErrorOnly(std::string_view memberName, VelaDictionary args, VelaErrorReply reply) {
  if (!reply) {
    send(memberName, std::move(args), nullptr);
    return;
  }
  send(memberName, std::move(args), [reply = std::move(reply)](const VelaDictionary& r) {
    std::optional<VelaError> error;
    if (!readDaemonError(r, error)) return false;
    reply(std::move(error));
    return true;
  });
}

void HandsetActionsProxy::sendOneString(std::string_view memberName, std::string_view valueKey, VelaStringReply reply) {
  send(memberName, {}, [valueKey, reply = std::move(reply)](const VelaDictionary& r) {
    std::optional<VelaError> error;
    std::optional<std::string> value;
    if (!readDaemonError(r, error) || !readString(r, valueKey, value)) return false;
    if (reply) reply(std::move(value), std::move(error));
    return true;
  });
}

void HandsetActionsProxy::sendTwoStrings(std::string_view memberName, VelaTwoStringReply reply) {
  send(memberName, {}, [reply = std::move(reply)](const VelaDictionary& r) {
    std::optional<VelaError> error;
    std::optional<std::string> username;
    std::optional<std::string> personID;
    if (!readDaemonError(r, error) || !readString(r, key::kUsername, username) ||
        !readString(r, key::kPersonID, personID)) {
      return false;
    }
    if (reply) reply(std::move(username), std::move(personID), std::move(error));
    return true;
  });
}

void HandsetActionsProxy::enableLostModeWithInfo(std::shared_ptr<VelaLostModeInfo> info, VelaErrorReply reply) {
  sendErrorOnly(member::kEnableLostModeWithInfo, Args().addRecord(key::kInfo, info).take(), std::move(reply));
}

void HandsetActionsProxy::disableLostModeUsingCallback(VelaErrorReply reply) {
  sendErrorOnly(member::kDisableLostMode, {}, std::move(reply));
}

void HandsetActionsProxy::getLocusStateUsingCallback(VelaStateReply reply) {
  send(member::kGetLocusState, {}, [reply = std::move(reply)](const VelaDictionary& r) {
    std::optional<VelaError> error;
    std::int32_t state = 0;
    if (!readDaemonError(r, error) || !readInt32(r, key::kState, state)) return false;
    if (reply) reply(state, std::move(error));
    return true;
  });
}

void HandsetActionsProxy::getKithDeviceIdUsingCallback(VelaStringReply reply) {
  sendOneString(member::kGetKithDeviceId, key::kDeviceId, std::move(reply));
}

void HandsetActionsProxy::getLocusDeviceIdUsingCallback(VelaStringReply reply) {
  sendOneString(member::kGetLocusDeviceId, key::kDeviceId, std::move(reply));
}

void HandsetActionsProxy::getStoreAccountUsingCallback(VelaStringReply reply) {
  sendOneString(member::kGetStoreAccount, kAccount, std::move(reply));
}

void HandsetActionsProxy::getLocusAccountUsingCallback(VelaTwoStringReply reply) {
  sendTwoStrings(member::kGetLocusAccount, std::move(reply));
}

void HandsetActionsProxy::getNimbusAccountUsingCallback(VelaTwoStringReply reply) {
  sendTwoStrings(member::kGetNimbusAccount, std::move(reply));
}

void HandsetActionsProxy::enableLocusInContext(std::int32_t context, VelaErrorReply reply) {
  sendErrorOnly(member::kEnableLocusInContext, Args().add(key::kContext, context).take(), std::move(reply));
}

void HandsetActionsProxy::disableLocusUsingToken(std::optional<std::string> token, std::int32_t context,
                                                 VelaErrorReply reply) {
  sendErrorOnly(member::kDisableLocusUsingToken, Args().add(key::kToken, token).add(key::kContext, context).take(),
                std::move(reply));
}

void HandsetActionsProxy::didEnterKithRegion(std::optional<std::string> regionIdentifier,
                                             std::shared_ptr<VelaGeoLocation> location, VelaErrorReply reply) {
  sendErrorOnly(member::kDidEnterKithRegion,
                Args().add(key::kRegionIdentifier, regionIdentifier).addRecord(key::kLocation, location).take(),
                std::move(reply));
}

void HandsetActionsProxy::didExitKithRegion(std::optional<std::string> regionIdentifier,
                                            std::shared_ptr<VelaGeoLocation> location, VelaErrorReply reply) {
  sendErrorOnly(member::kDidExitKithRegion,
                Args().add(key::kRegionIdentifier, regionIdentifier).addRecord(key::kLocation, location).take(),
                std::move(reply));
}

void HandsetActionsProxy::addKithAccount(std::shared_ptr<VelaKithAccountInfo> account, VelaErrorReply reply) {
  sendErrorOnly(member::kAddKithAccount, Args().addRecord(kAccount, account).take(), std::move(reply));
}

void HandsetActionsProxy::removeKithAccountWithUsername(std::optional<std::string> username, VelaErrorReply reply) {
  sendErrorOnly(member::kRemoveKithAccountWithUsername, Args().add(key::kUsername, username).take(), std::move(reply));
}

void HandsetActionsProxy::retrieveKithAccountUsingCallback(VelaKithAccountReply reply) {
  send(member::kRetrieveKithAccount, {}, [reply = std::move(reply)](const VelaDictionary& r) {
    std::optional<VelaError> error;
    std::shared_ptr<VelaKithAccountInfo> account;
    if (!readDaemonError(r, error) || !readRecord(r, kAccount, account)) return false;
    if (reply) reply(std::move(account), std::move(error));
    return true;
  });
}

void HandsetActionsProxy::vetEmailAccount(std::optional<std::string> account, VelaErrorReply reply) {
  sendErrorOnly(member::kVetEmailAccount, Args().add(kAccount, account).take(), std::move(reply));
}

void HandsetActionsProxy::cancelEmailVetUsingCallback(VelaErrorReply reply) {
  sendErrorOnly(member::kCancelEmailVet, {}, std::move(reply));
}

void HandsetActionsProxy::startListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) {
  sendErrorOnly(member::kStartListeningOnTopic, Args().add(key::kTopic, topic).take(), std::move(reply));
}

void HandsetActionsProxy::stopListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) {
  sendErrorOnly(member::kStopListeningOnTopic, Args().add(key::kTopic, topic).take(), std::move(reply));
}

void HandsetActionsProxy::dumpDebugInfo(std::optional<std::string> argument, VelaErrorReply reply) {
  sendErrorOnly(member::kDumpDebugInfo, Args().add(key::kArgument, argument).take(), std::move(reply));
}

}  // namespace vela::session
