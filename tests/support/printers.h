// SPDX-License-Identifier: MIT
#pragma once

#include <ostream>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

// Readable failure messages: GoogleTest finds these by argument-dependent
// lookup instead of dumping the objects' bytes.
inline void PrintTo(const VelaValue& value, std::ostream* os) { *os << value.description(); }

inline void PrintTo(const VelaError& error, std::ostream* os) {
  *os << "VelaError(" << error.domain() << ", " << error.code() << ", " << VelaValue(error.userInfo()).description()
      << ")";
}
