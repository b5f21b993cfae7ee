# SPDX-License-Identifier: MIT
find_package(benchmark REQUIRED)
add_executable(vela_prefs_bench ${CMAKE_CURRENT_LIST_DIR}/prefs_bench.cpp)
target_link_libraries(vela_prefs_bench PRIVATE vela_internal benchmark::benchmark vela_warnings)
