// SPDX-License-Identifier: MIT
#pragma once

// Only symbols marked VELA_EXPORT leave the shared library; everything else is
// hidden so that internals can change without breaking the ABI.
#if defined(VELA_BUILDING_LIBRARY)
#define VELA_EXPORT __attribute__((visibility("default")))
#else
#define VELA_EXPORT
#endif
