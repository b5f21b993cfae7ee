# SPDX-License-Identifier: MIT
# The synchronous call through the public shared library, linked as a client
# links it, against the same call made with bare sd-bus, plus the failure
# timings (absent, dying and silent daemon) and the session's memory cost.
# It starts its own private bus and velad with the test fixture, which holds
# none of the library's code.
if(TARGET vela_private_bus)
  add_executable(vela_call_bench ${CMAKE_CURRENT_LIST_DIR}/call_bench.cpp)
  # The protocol's names are header-only constants: the bench compiles them
  # in and links nothing of the library but the shared library.
  target_include_directories(vela_call_bench PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(vela_call_bench PRIVATE Vela::vela vela_bench_bus benchmark::benchmark PkgConfig::SYSTEMD
                                                vela_warnings)
  if(TARGET velad)
    add_dependencies(vela_call_bench velad)
  endif()
else()
  message(STATUS "vela_call_bench needs the test fixtures (VELA_BUILD_TESTS=ON); not built")
endif()
