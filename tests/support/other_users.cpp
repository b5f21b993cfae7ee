// SPDX-License-Identifier: MIT
#include "other_users.h"

#include <pwd.h>

#include <filesystem>

namespace vela::testing {
namespace {

namespace fs = std::filesystem;

constexpr auto kEveryone = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                           fs::perms::others_read | fs::perms::others_exec;

void copyRunnable(const fs::path& from, const fs::path& to) {
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  fs::permissions(to, kEveryone);
}

}  // namespace

std::optional<ServiceUser> ServiceUser::standIn() {
  const passwd* entry = ::getpwnam("daemon");
  if (entry == nullptr) return std::nullopt;
  return ServiceUser{entry->pw_name, entry->pw_uid, entry->pw_gid};
}

std::vector<std::string> ServiceUser::launcher() const {
  return {"setpriv", "--reuid=" + std::to_string(uid), "--regid=" + std::to_string(gid), "--clear-groups"};
}

RunnableCopy runnableByEveryone(const std::string& program, const std::string& directory) {
  const fs::path into(directory);
  fs::create_directories(into / "velanotification");
  fs::permissions(into, kEveryone);
  fs::permissions(into / "velanotification", kEveryone);
  const fs::path copy = into / fs::path(program).filename();
  copyRunnable(program, copy);
  // Found by its soname first on LD_LIBRARY_PATH; the library then finds the
  // store module beside itself.
  copyRunnable(VELA_LIBRARY_FILE, into / VELA_LIBRARY_SONAME);
  copyRunnable(VELA_STORE_MODULE, into / "velanotification" / fs::path(VELA_STORE_MODULE).filename());
  return {copy.string(), "env LD_LIBRARY_PATH=" + into.string() + " " + copy.string()};
}

}  // namespace vela::testing
