# SPDX-License-Identifier: MIT
# Included by this folder's CMakeLists.txt: adds the client that drives velad's
# Testing interface to vela_test_support.
target_sources(vela_test_support PRIVATE ${CMAKE_CURRENT_LIST_DIR}/velad_control.cpp
                                         ${CMAKE_CURRENT_LIST_DIR}/velad_control.h)
target_include_directories(vela_test_support PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(vela_test_support PUBLIC vela_bus_test_client)
