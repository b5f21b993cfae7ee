// SPDX-License-Identifier: MIT
#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <vela/VelaExport.h>

// Property-list values: the one value vocabulary that crosses the bus, the
// preference store and notification user info unchanged.
//
// A VelaValue holds exactly one of: string, integer (64-bit), real (double),
// boolean (never confused with a number), date, data, array, dictionary with
// string keys, or set. Values are plain copyable C++ values; they are safe to
// read from several threads at once and must not be changed while shared.

// A point in time, as seconds since 1970-01-01 00:00 UTC.
struct VelaDate {
  double secondsSince1970 = 0.0;
  friend bool operator==(const VelaDate&, const VelaDate&) = default;
};

using VelaData = std::vector<std::uint8_t>;

class VelaValue;
using VelaArray = std::vector<VelaValue>;
using VelaDictionary = std::map<std::string, VelaValue, std::less<>>;

// An unordered collection. Equality ignores order; duplicates are kept as
// given (the wire and the store carry a set as its list of members).
struct VELA_EXPORT VelaSet {
  VelaArray members;
  friend VELA_EXPORT bool operator==(const VelaSet& a, const VelaSet& b);
};

class VELA_EXPORT VelaValue {
 public:
  enum class Type { kString, kInteger, kReal, kBoolean, kDate, kData, kArray, kDictionary, kSet };

  using Storage =
      std::variant<std::string, std::int64_t, double, bool, VelaDate, VelaData, VelaArray, VelaDictionary, VelaSet>;

  // Implicit on purpose, so that literals and values stand in for VelaValue
  // in dictionary and array literals.
  // NOLINTBEGIN(google-explicit-constructor)
  VelaValue(std::string s) : storage_(std::move(s)) {}
  VelaValue(std::string_view s) : storage_(std::string(s)) {}
  VelaValue(const char* s) : storage_(std::string(s)) {}
  template <std::integral T>
  requires(!std::same_as<T, bool>) VelaValue(T i) : storage_(static_cast<std::int64_t>(i)) {}
  // Only a real bool makes a boolean: pointers and numbers never convert to one.
  template <std::same_as<bool> B>
  VelaValue(B b) : storage_(b) {}
  VelaValue(double d) : storage_(d) {}
  VelaValue(VelaDate d) : storage_(d) {}
  VelaValue(VelaData d) : storage_(std::move(d)) {}
  VelaValue(VelaArray a) : storage_(std::move(a)) {}
  VelaValue(VelaDictionary d) : storage_(std::move(d)) {}
  VelaValue(VelaSet s) : storage_(std::move(s)) {}
  // NOLINTEND(google-explicit-constructor)

  Type type() const noexcept { return static_cast<Type>(storage_.index()); }
  const Storage& storage() const noexcept { return storage_; }

  // Typed views: a pointer to the held value, or nullptr when the value holds
  // another type. No conversion is ever made.
  template <typename T>
  const T* getIf() const noexcept {
    return std::get_if<T>(&storage_);
  }
  const std::string* asString() const noexcept { return getIf<std::string>(); }
  const VelaDictionary* asDictionary() const noexcept { return getIf<VelaDictionary>(); }
  const VelaArray* asArray() const noexcept { return getIf<VelaArray>(); }

  // True for integer, real and boolean values: the types a number class
  // restriction accepts.
  bool isNumber() const noexcept {
    return type() == Type::kInteger || type() == Type::kReal || type() == Type::kBoolean;
  }
  // The numeric value of an integer, real or boolean; nullopt otherwise.
  std::optional<double> numberAsDouble() const noexcept;
  // Integer value of an integer (itself), real (truncated toward zero,
  // saturating beyond the int64 range; nullopt for NaN) or boolean (1/0);
  // nullopt for every other type.
  std::optional<std::int64_t> numberAsInteger() const noexcept;

  // A short human-readable rendering, for descriptions and diagnostics.
  std::string description() const;

  friend VELA_EXPORT bool operator==(const VelaValue& a, const VelaValue& b);

 private:
  Storage storage_;
};

// Name of a value type, as descriptions and error messages print it.
VELA_EXPORT std::string_view VelaValueTypeName(VelaValue::Type type);
