# SPDX-License-Identifier: MIT
# Many client processes at once, each calling through the public shared
# library or with bare sd-bus, back to back and at a steady pace, in
# alternate rounds against one velad on one bus. Clients are the benchmark
# itself started again, so each is a fresh process, as real clients are.
if(TARGET vela_private_bus)
  add_executable(vela_load_bench ${CMAKE_CURRENT_LIST_DIR}/load_bench.cpp)
  # The protocol's names are header-only constants: the bench compiles them
  # in and links nothing of the library but the shared library.
  target_include_directories(vela_load_bench PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(vela_load_bench PRIVATE Vela::vela vela_bench_bus benchmark::benchmark PkgConfig::SYSTEMD
                                                vela_warnings)
  if(TARGET velad)
    add_dependencies(vela_load_bench velad)
  endif()
else()
  message(STATUS "vela_load_bench needs the test fixtures (VELA_BUILD_TESTS=ON); not built")
endif()
