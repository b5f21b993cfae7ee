// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

namespace vela::prefs {

// Whether `domain` belongs to the service as a whole rather than to one user:
// the application's four domains and the Warden domain, which live in the
// system-wide store that only the daemon writes. The names are assignable
// globals (VelaConstants.h), so they are read on every call.
// Thread: any, as long as no host reassigns a name meanwhile. Blocks: no.
bool isServiceDomain(std::string_view domain);

}  // namespace vela::prefs
