// SPDX-License-Identifier: MIT
#include "polkit_daemon.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "shell_words.h"

namespace vela::testing {
namespace {

constexpr const char* kPolkitd = "/usr/lib/polkit-1/polkitd";

// polkitd reads what is bound over its folders as its own user.
void makeWorldReadable(const std::filesystem::path& path, bool directory) {
  ::chmod(path.c_str(), directory ? 0755 : 0644);
}

}  // namespace

std::optional<std::string> PolkitDaemon::unavailable() {
  if (::geteuid() != 0) return "polkitd and other users' callers need root";
  if (::access(kPolkitd, X_OK) != 0) return std::string(kPolkitd) + " is not installed (Debian package polkitd)";
  for (const char* tool : {"unshare", "setpriv", "gdbus"}) {
    if (!onPath(tool)) return std::string(tool) + " is not installed";
  }
  // Some sandboxes refuse new mount namespaces even to root.
  if (Subprocess::run({"unshare", "--mount", "--propagation", "private", "true"}) != ExitStatus{}) {
    return "this machine refuses a private mount namespace";
  }
  return std::nullopt;
}

void PolkitDaemon::openToEveryUser(const PrivateBus& bus) {
  makeWorldReadable(bus.directory(), true);
  ::chmod((bus.directory() + "/bus").c_str(), 0777);
}

PolkitDaemon::PolkitDaemon(const PrivateBus& bus, const std::string& rules, const std::string& serviceUser) {
  openToEveryUser(bus);
  const std::filesystem::path root = std::filesystem::path(bus.directory()) / "polkit";
  const std::filesystem::path actions = root / "actions";
  const std::filesystem::path rulesDirectory = root / "rules.d";
  std::filesystem::create_directories(actions);
  std::filesystem::create_directories(rulesDirectory);
  for (const auto& directory : {root, actions, rulesDirectory}) makeWorldReadable(directory, true);
  const std::filesystem::path policy = actions / std::filesystem::path(VELA_POLKIT_POLICY).filename();
  std::ifstream installed(VELA_POLKIT_POLICY);
  std::string text((std::istreambuf_iterator<char>(installed)), std::istreambuf_iterator<char>());
  static constexpr std::string_view kOwner = "unix-user:vela<";
  for (std::size_t at = text.find(kOwner); at != std::string::npos; at = text.find(kOwner, at + 1)) {
    text.replace(at, kOwner.size(), "unix-user:" + serviceUser + "<");
  }
  std::ofstream(policy) << text;
  makeWorldReadable(policy, false);
  const std::filesystem::path rulesFile = rulesDirectory / "50-tests.rules";
  std::ofstream(rulesFile) << rules << '\n';
  makeWorldReadable(rulesFile, false);

  const std::string script = "mount --bind '" + actions.string() + "' /usr/share/polkit-1/actions && mount --bind '" +
                             rulesDirectory.string() + "' /etc/polkit-1/rules.d && exec " + kPolkitd + " --no-debug";
  process_.emplace(std::vector<std::string>{"unshare", "--mount", "--propagation", "private", "sh", "-c", script});
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(kStartTimeout).count();
  const ExitStatus waited = Subprocess::run(
      {"gdbus", "wait", "--address", bus.address(), "--timeout", std::to_string(seconds), "org.freedesktop.PolicyKit1"},
      kStartTimeout + std::chrono::seconds(5));
  if (waited != ExitStatus{})
    throw std::runtime_error("polkitd did not take its name: gdbus wait " + waited.toString());
}

}  // namespace vela::testing
