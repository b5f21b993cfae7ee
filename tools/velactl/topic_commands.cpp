// SPDX-License-Identifier: MIT
#include <vela/VelaNotifySession.h>

#include "command.h"

namespace velactl {
namespace {

using SendString = void (VelaNotifySession::*)(std::optional<std::string>);

// These requests are sent without an answer: the result is always null.
void addSendCommand(CLI::App& app, Action& chosen, const char* name, const char* help, const char* optionName,
                    const char* example, SendString send) {
  if (auto* command = addCommand(app, name, help)) {
    addExample(command, example);
    auto argument = std::make_shared<OptionalString>();
    argument->option = command->add_option(optionName, argument->value, "Passed unchanged (left out: nil)");
    command->callback([&chosen, argument, send] {
      chosen = [argument, send] {
        (*VelaNotifySession::sharedInstance().*send)(argument->get());
        awaitDelivery();
        return Outcome{nullptr, {}};
      };
    });
  }
}

}  // namespace

void addTopicCommands(CLI::App& app, Action& chosen) {
  addSendCommand(app, chosen, "start-listening-on-topic", "Ask the daemon to listen on a push topic", "--topic",
                 "velactl start-listening-on-topic --topic com.example.topic",
                 &VelaNotifySession::startListeningOnTopic);
  addSendCommand(app, chosen, "stop-listening-on-topic", "Ask the daemon to stop listening on a push topic", "--topic",
                 "velactl stop-listening-on-topic --topic com.example.topic", &VelaNotifySession::stopListeningOnTopic);
  addSendCommand(app, chosen, "dump-debug-info", "Ask the daemon to dump its debug state", "--argument",
                 "pkexec velactl dump-debug-info --argument all", &VelaNotifySession::dumpDebugInfo);
}

}  // namespace velactl
