// SPDX-License-Identifier: MIT
#include <limits>
#include <utility>

#include <vela/VelaPreferencesUtil.h>

#include "platform/prefs/coercion.h"
#include "platform/prefs/store.h"

namespace vela::prefs {
namespace {

// Every public call funnels through these helpers, which also keep any
// exception (allocation failure, a mutex error) from leaving the library.

std::optional<VelaValue> readValue(std::string_view key, std::string_view domain) noexcept {
  try {
    return store().copyValue(domain, key);
  } catch (...) {
    return std::nullopt;
  }
}

void writeValue(std::string_view key, std::string_view domain, const std::optional<VelaValue>& value) noexcept {
  try {
    Store& preferences = store();
    // The write itself is durable and visible when it returns; synchronising
    // too keeps each write paired with its domain's synchronisation should the
    // store ever cache.
    // (void): the public setters report nothing; a write that failed reads
    // back as the value that was there before.
    (void)preferences.setValue(domain, key, value);
    preferences.synchronize(domain);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a write that cannot be made is not reported
  }
}

template <typename T>
std::optional<T> readTyped(std::string_view key, std::string_view domain) noexcept {
  try {
    const std::optional<VelaValue> value = readValue(key, domain);
    if (!value) return std::nullopt;
    if (const T* typed = value->getIf<T>()) return *typed;
    return std::nullopt;
  } catch (...) {
    return std::nullopt;
  }
}

// The typed setters' shared body: the value as given, or removal for nullopt.
template <typename T>
void writeOptional(std::string_view key, std::string_view domain, const std::optional<T>& value) noexcept {
  try {
    std::optional<VelaValue> stored;
    if (value) stored.emplace(*value);
    writeValue(key, domain, stored);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a write that cannot be made is not reported
  }
}

}  // namespace
}  // namespace vela::prefs

using vela::prefs::readTyped;
using vela::prefs::readValue;
using vela::prefs::writeOptional;
using vela::prefs::writeValue;

void VelaPreferencesUtil::synchronizeDomain(std::string_view domain) {
  try {
    vela::prefs::store().synchronize(domain);
  } catch (...) {  // NOLINT(bugprone-empty-catch): synchronisation failures are not reported
  }
}

void VelaPreferencesUtil::removeKey(std::string_view key, std::string_view domain) {
  writeValue(key, domain, std::nullopt);
}

bool VelaPreferencesUtil::boolForKey(std::string_view key, std::string_view domain) {
  const std::optional<VelaValue> value = readValue(key, domain);
  return value && vela::prefs::coerceToBool(*value).value_or(false);
}

void VelaPreferencesUtil::setBool(bool value, std::string_view key, std::string_view domain) {
  writeValue(key, domain, VelaValue(value));
}

std::intptr_t VelaPreferencesUtil::integerForKey(std::string_view key, std::string_view domain) {
  const std::optional<VelaValue> value = readValue(key, domain);
  if (!value) return 0;
  const std::optional<std::int64_t> integer = vela::prefs::coerceToInteger(*value);
  if (!integer || *integer < std::numeric_limits<std::intptr_t>::min() ||
      *integer > std::numeric_limits<std::intptr_t>::max()) {
    return 0;
  }
  return static_cast<std::intptr_t>(*integer);
}

void VelaPreferencesUtil::setInteger(std::intptr_t value, std::string_view key, std::string_view domain) {
  writeValue(key, domain, VelaValue(static_cast<std::int64_t>(value)));
}

std::optional<std::string> VelaPreferencesUtil::stringForKey(std::string_view key, std::string_view domain) {
  return readTyped<std::string>(key, domain);
}

std::optional<VelaDate> VelaPreferencesUtil::dateForKey(std::string_view key, std::string_view domain) {
  return readTyped<VelaDate>(key, domain);
}

std::optional<VelaDictionary> VelaPreferencesUtil::dictionaryForKey(std::string_view key, std::string_view domain) {
  return readTyped<VelaDictionary>(key, domain);
}

std::optional<VelaArray> VelaPreferencesUtil::arrayForKey(std::string_view key, std::string_view domain) {
  return readTyped<VelaArray>(key, domain);
}

std::optional<VelaData> VelaPreferencesUtil::dataForKey(std::string_view key, std::string_view domain) {
  return readTyped<VelaData>(key, domain);
}

std::optional<VelaValue> VelaPreferencesUtil::objectForKey(std::string_view key, std::string_view domain) {
  return readValue(key, domain);
}

VelaDictionary VelaPreferencesUtil::dictionaryForDomain(std::string_view domain) {
  try {
    return vela::prefs::store().copyDomain(domain);
  } catch (...) {
    return {};
  }
}

void VelaPreferencesUtil::setString(std::optional<std::string_view> value, std::string_view key,
                                    std::string_view domain) {
  writeOptional(key, domain, value);
}

void VelaPreferencesUtil::setDate(std::optional<VelaDate> value, std::string_view key, std::string_view domain) {
  writeOptional(key, domain, value);
}

void VelaPreferencesUtil::setDictionary(const std::optional<VelaDictionary>& value, std::string_view key,
                                        std::string_view domain) {
  writeOptional(key, domain, value);
}

void VelaPreferencesUtil::setArray(const std::optional<VelaArray>& value, std::string_view key,
                                   std::string_view domain) {
  writeOptional(key, domain, value);
}

void VelaPreferencesUtil::setData(const std::optional<VelaData>& value, std::string_view key, std::string_view domain) {
  writeOptional(key, domain, value);
}

void VelaPreferencesUtil::setObject(const std::optional<VelaValue>& value, std::string_view key,
                                    std::string_view domain) {
  writeValue(key, domain, value);
}
