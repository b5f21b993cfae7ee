// SPDX-License-Identifier: MIT
#include <dlfcn.h>

#include <string>

#include "platform/prefs/store.h"

// Defined when the program links the store in; null in the shared library,
// which loads the store's module instead.
// NOLINTNEXTLINE(readability-redundant-declaration): weak here, and only here
extern "C" vela::prefs::Store* velaPreferenceStore() __attribute__((weak));

namespace vela::prefs {
namespace {

// Where the module lies, relative to the directory of the shared library
// that loads it: the same in the build tree and in an installed tree.
constexpr std::string_view kModulePath = "velanotification/libvelanotification-store.so";

// What stands in for a store whose module could not be loaded.
class UnavailableStore final : public Store {
 public:
  explicit UnavailableStore(std::string why) : why_(std::move(why)) {}

  std::optional<VelaValue> copyValue(std::string_view /*domain*/, std::string_view /*key*/) override {
    return std::nullopt;
  }
  VelaDictionary copyDomain(std::string_view /*domain*/) override { return {}; }
  bool setValue(std::string_view /*domain*/, std::string_view /*key*/,
                const std::optional<VelaValue>& /*value*/) override {
    return false;
  }
  void synchronize(std::string_view /*domain*/) override {}
  std::string lastFailure() override { return why_; }

 private:
  std::string why_;
};

Store* unavailable(const std::string& why) {
  // Never destroyed, like the store it stands in for.
  return new UnavailableStore("the preference store cannot be loaded: " + why);  // NOLINT(*-owning-memory)
}

std::string dlfailure() {
  const char* why = ::dlerror();
  return why != nullptr ? why : "unknown error";
}

Store* loadModule() {
  Dl_info self{};
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dladdr takes any address
  if (::dladdr(reinterpret_cast<void*>(&store), &self) == 0 || self.dli_fname == nullptr) {
    return unavailable("the library cannot tell where it lies");
  }
  std::string path = self.dli_fname;
  path.erase(path.find_last_of('/') + 1);
  path += kModulePath;
  // Kept loaded to the end: the store outlives every caller.
  void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (module == nullptr) return unavailable(dlfailure());
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dlsym returns functions as void*
  auto* entry = reinterpret_cast<Store* (*)()>(::dlsym(module, "velaPreferenceStore"));
  if (entry == nullptr) return unavailable(dlfailure());
  return entry();
}

}  // namespace

Store& store() {
  // NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): chosen once, used by every caller
  static Store* const chosen = velaPreferenceStore != nullptr ? velaPreferenceStore() : loadModule();
  return *chosen;
}

}  // namespace vela::prefs
