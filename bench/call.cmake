# SPDX-License-Identifier: MIT
# The synchronous call through the public shared library, linked as a client
# links it, against the same call made with bare sd-bus, plus the failure
# timings (absent, dying and silent daemon) and the session's memory cost.
# It starts its own private bus and velad, so it needs the test fixtures.
if(TARGET vela_test_support)
  find_package(benchmark REQUIRED)
  add_executable(vela_call_bench ${CMAKE_CURRENT_LIST_DIR}/call_bench.cpp)
  # Vela::vela comes first, so that every library symbol the bench calls
  # resolves to the shared library rather than to the fixtures' static copy.
  target_link_libraries(vela_call_bench PRIVATE Vela::vela vela_test_support
                                                benchmark::benchmark PkgConfig::SYSTEMD vela_warnings)
  if(TARGET velad)
    add_dependencies(vela_call_bench velad)
  endif()
else()
  message(STATUS "vela_call_bench needs the test fixtures (VELA_BUILD_TESTS=ON); not built")
endif()
