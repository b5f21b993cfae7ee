# SPDX-License-Identifier: MIT
# Short-lived clients: processes that load the library, make one call and exit,
# against the same call over bare sd-bus in C++ and in C, and velactl. The
# driver starts its own private bus and velad and times each process whole.
if(TARGET vela_private_bus AND TARGET velactl AND TARGET velad)
  # The C baseline is the one C target; the rest of the project is C++ only.
  enable_language(C)

  add_executable(vela_one_call_library ${CMAKE_CURRENT_LIST_DIR}/one_call/library_call.cpp)
  target_link_libraries(vela_one_call_library PRIVATE Vela::vela vela_warnings)

  add_executable(vela_one_call_bare_cxx ${CMAKE_CURRENT_LIST_DIR}/one_call/bare_call.cpp)
  target_link_libraries(vela_one_call_bare_cxx PRIVATE vela_bare_call vela_warnings)

  add_executable(vela_one_call_bare_c ${CMAKE_CURRENT_LIST_DIR}/one_call/bare_call.c)
  set_target_properties(vela_one_call_bare_c PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
  # vela_warnings may grow C++-only flags; the C program names its own.
  target_compile_options(vela_one_call_bare_c PRIVATE -Wall -Wextra -Wpedantic $<$<BOOL:${VELA_WERROR}>:-Werror>)
  target_link_libraries(vela_one_call_bare_c PRIVATE PkgConfig::SYSTEMD)

  add_executable(vela_one_call_bench ${CMAKE_CURRENT_LIST_DIR}/one_call_bench.cpp)
  target_compile_definitions(
    vela_one_call_bench
    PRIVATE VELA_ONE_CALL_LIBRARY="$<TARGET_FILE:vela_one_call_library>"
            VELA_ONE_CALL_BARE_CXX="$<TARGET_FILE:vela_one_call_bare_cxx>"
            VELA_ONE_CALL_BARE_C="$<TARGET_FILE:vela_one_call_bare_c>" VELACTL_PATH="$<TARGET_FILE:velactl>")
  target_link_libraries(vela_one_call_bench PRIVATE vela_bench_bus benchmark::benchmark vela_warnings)
  # The driver starts these by path, so they must be built with it.
  add_dependencies(vela_one_call_bench vela_one_call_library vela_one_call_bare_cxx vela_one_call_bare_c velactl velad)
else()
  message(STATUS "vela_one_call_bench needs the test fixtures and velactl (VELA_BUILD_TESTS, VELA_BUILD_TOOLS); not built")
endif()
