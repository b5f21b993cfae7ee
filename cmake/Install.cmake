# SPDX-License-Identifier: MIT
# Installs the shared library with its public headers, a CMake package
# (find_package(Vela) gives Vela::vela), a pkg-config file (velanotification),
# the interface description, and velad and velactl when they are built.
include(CMakePackageConfigHelpers)

set(VELA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Vela)

install(TARGETS vela
        EXPORT VelaTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
# The preference store's module, where the library looks for it.
install(TARGETS vela_store LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/velanotification COMPONENT runtime)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vela/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vela
        COMPONENT dev
        FILES_MATCHING PATTERN "*.h")

install(EXPORT VelaTargets
        NAMESPACE Vela::
        DESTINATION ${VELA_CMAKE_DIR}
        COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VelaConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/VelaConfig.cmake
                              INSTALL_DESTINATION ${VELA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelaConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelaConfig.cmake ${PROJECT_BINARY_DIR}/VelaConfigVersion.cmake
        DESTINATION ${VELA_CMAKE_DIR}
        COMPONENT dev)

# The .pc file finds its prefix from where it lies, so that it stays right
# when the prefix is chosen at install time (cmake --install --prefix).
file(RELATIVE_PATH VELA_PC_PREFIX_FROM_PCFILEDIR ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VELA_PC_PREFIX_FROM_PCFILEDIR "${VELA_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/vela.pc.in ${PROJECT_BINARY_DIR}/velanotification.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velanotification.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

# The published description of the D-Bus interface.
file(GLOB VELA_INTERFACE_FILES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/interface/*.xml)
if(VELA_INTERFACE_FILES)
  install(FILES ${VELA_INTERFACE_FILES}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces
          COMPONENT runtime)
endif()

# velad is a system daemon (sbin); velactl is for everyone (bin) and finds
# libvelanotification in the installed tree, wherever the prefix is.
if(TARGET velad)
  install(TARGETS velad RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tools)
endif()
if(TARGET velactl)
  set_target_properties(velactl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS velactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
