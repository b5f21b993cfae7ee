// SPDX-License-Identifier: MIT
#include <memory>

#include <vela/VelaNotifySession.h>

#include "command.h"
#include "json_value.h"

namespace velactl {
namespace {

// The record's three properties, nil as null.
nlohmann::json infoToJson(const std::shared_ptr<VelaLostModeInfo>& info) {
  if (!info) return nullptr;
  return {{"lostModeEnabled", info->lostModeEnabled()},
          {"message", toJson(info->message())},
          {"phoneNumber", toJson(info->phoneNumber())}};
}

}  // namespace

void addLostModeCommands(CLI::App& app, Action& chosen) {
  if (auto* isActive =
          addCommand(app, "lost-mode-is-active", "Whether lost mode is on, as the preference store says")) {
    addExample(isActive, "velactl lost-mode-is-active");
    isActive->callback([&chosen] {
      chosen = [] { return Outcome{VelaNotifySession::sharedInstance()->lostModeIsActive(), {}}; };
    });
  }

  if (auto* info = addCommand(app, "lost-mode-info", "The active lost-mode entry: flag, message and owner's number")) {
    addExample(info, "velactl --json lost-mode-info");
    info->callback([&chosen] {
      chosen = [] { return Outcome{infoToJson(VelaNotifySession::sharedInstance()->lostModeInfo()), {}}; };
    });
  }

  if (auto* params = addCommand(app, "lost-mode-params",
                                "The locked screen's lost-mode parameters (null unless both texts are set)")) {
    addExample(params, "velactl --json lost-mode-params");
    params->callback([&chosen] {
      chosen = [] {
        const auto params = VelaNotifySession::sharedInstance()->lostModeParams();
        return Outcome{params ? toJson(VelaValue(*params)) : nlohmann::json(), {}};
      };
    });
  }

  struct EnableOptions {
    OptionalString message;
    OptionalString phoneNumber;
    bool enabled = true;
    bool noInfo = false;
  };
  auto options = std::make_shared<EnableOptions>();
  if (auto* enable = addCommand(app, "enable-lost-mode", "Ask the daemon to switch lost mode on")) {
    options->message.option =
        enable->add_option("--message", options->message.value, "Text for the locked screen (left out: nil)");
    options->phoneNumber.option =
        enable->add_option("--phone-number", options->phoneNumber.value, "Owner's number (left out: nil)");
    enable->add_flag("--enabled,!--disabled", options->enabled, "The record's flag (default: enabled)");
    enable->add_flag("--no-info", options->noInfo, "Send no record at all (nil)");
    addExample(enable, "pkexec velactl enable-lost-mode --message \"Please call\" --phone-number 555-0100",
               "Needs authorization: an unprivileged user runs it through pkexec.");
    enable->callback([&chosen, options] {
      chosen = [options] {
        std::shared_ptr<VelaLostModeInfo> info;
        if (!options->noInfo) {
          info = std::make_shared<VelaLostModeInfo>();
          info->setLostModeEnabled(options->enabled);
          info->setMessage(options->message.get());
          info->setPhoneNumber(options->phoneNumber.get());
        }
        return Outcome{nullptr, VelaNotifySession::sharedInstance()->enableLostModeWithInfo(std::move(info))};
      };
    });
  }

  if (auto* disable = addCommand(app, "disable-lost-mode", "Ask the daemon to switch lost mode off, without waiting")) {
    addExample(disable, "pkexec velactl disable-lost-mode",
               "Needs authorization. It is sent without an answer, so velactl cannot report a refusal.");
    disable->callback([&chosen] {
      chosen = [] {
        VelaNotifySession::sharedInstance()->disableLostMode();
        awaitDelivery();
        return Outcome{nullptr, {}};
      };
    });
  }
}

}  // namespace velactl
