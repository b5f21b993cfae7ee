// SPDX-License-Identifier: MIT
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

void VelaNotifySession::startListeningOnTopic(std::optional<std::string> topic) {
  vela::session::sendWithoutReply(*this, "startListeningOnTopic",
                                  [&](auto& proxy) { proxy.startListeningOnTopic(std::move(topic), nullptr); });
}

void VelaNotifySession::stopListeningOnTopic(std::optional<std::string> topic) {
  vela::session::sendWithoutReply(*this, "stopListeningOnTopic",
                                  [&](auto& proxy) { proxy.stopListeningOnTopic(std::move(topic), nullptr); });
}

void VelaNotifySession::dumpDebugInfo(std::optional<std::string> argument) {
  vela::session::sendWithoutReply(*this, "dumpDebugInfo",
                                  [&](auto& proxy) { proxy.dumpDebugInfo(std::move(argument), nullptr); });
}
