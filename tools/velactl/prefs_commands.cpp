// SPDX-License-Identifier: MIT
#include <memory>
#include <string>

#include <vela/VelaPreferencesUtil.h>

#include "command.h"
#include "json_value.h"

namespace velactl {
namespace {

struct PrefsOptions {
  std::string domain;
  std::string key;
  std::string value;  // JSON text, for set
};

CLI::App* addKeyCommand(CLI::App& prefs, const std::shared_ptr<PrefsOptions>& options, const char* name,
                        const char* help) {
  auto* command = prefs.add_subcommand(name, help);
  command->add_option("key", options->key, "The key")->required();
  command->add_option("--domain", options->domain, "The preference domain")->required();
  return command;
}

}  // namespace

void addPrefsCommands(CLI::App& app, Action& chosen) {
  auto* prefs = addCommand(app, "prefs", "Read and write the preference store, any domain");
  if (prefs == nullptr) return;
  prefs->require_subcommand(1);
  addExample(prefs, "velactl prefs list --domain com.zentrex.VelaNotification.public.notbackedup",
             "Run `velactl prefs COMMAND --help` for each command's arguments.");
  auto options = std::make_shared<PrefsOptions>();

  auto* get = addKeyCommand(*prefs, options, "get", "The key's value, null when absent");
  addExample(get, "velactl --json prefs get launches --domain com.example.app");
  get->callback([&chosen, options] {
    chosen = [options] {
      return Outcome{toJson(VelaPreferencesUtil::objectForKey(options->key, options->domain)), {}};
    };
  });

  auto* set = addKeyCommand(*prefs, options, "set", "Store a value; prints it as read back");
  set->add_option("value", options->value, R"(JSON: "text", 5, 2.5, true, [..], {..}, {"$date": s}, {"$data": b64})")
      ->required()
      ->check(CLI::Validator(
          [](const std::string& text) {
            std::string whyNot;
            return fromJsonText(text, &whyNot) ? std::string() : whyNot;
          },
          "JSON"));
  addExample(set, R"(velactl prefs set launched '{"$date": 1700000000}' --domain com.example.app)",
             "The value is JSON; dates, data and sets are tagged objects, as --json prints them. The service's own "
             "domains are written by velad only: a write to them is dropped.");
  set->callback([&chosen, options] {
    chosen = [options] {
      std::string whyNot;
      VelaPreferencesUtil::setObject(fromJsonText(options->value, &whyNot), options->key, options->domain);
      return Outcome{toJson(VelaPreferencesUtil::objectForKey(options->key, options->domain)), {}};
    };
  });

  auto* remove = addKeyCommand(*prefs, options, "remove", "Remove the key; nothing happens if it is absent");
  addExample(remove, "velactl prefs remove launches --domain com.example.app");
  remove->callback([&chosen, options] {
    chosen = [options] {
      VelaPreferencesUtil::removeKey(options->key, options->domain);
      return Outcome{nullptr, {}};
    };
  });

  auto* list = prefs->add_subcommand("list", "Every key of the domain with its value");
  list->add_option("--domain", options->domain, "The preference domain")->required();
  addExample(list, "velactl --json prefs list --domain com.example.app");
  list->callback([&chosen, options] {
    chosen = [options] {
      return Outcome{toJson(VelaValue(VelaPreferencesUtil::dictionaryForDomain(options->domain))), {}};
    };
  });
}

}  // namespace velactl
