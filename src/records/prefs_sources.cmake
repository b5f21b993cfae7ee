# SPDX-License-Identifier: MIT
target_sources(vela_objects PRIVATE ${CMAKE_CURRENT_LIST_DIR}/VelaPreferencesUtil.cpp)
