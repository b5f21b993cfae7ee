# SPDX-License-Identifier: MIT
# Installs the shared library with its public headers, a CMake package
# (find_package(Vela) gives Vela::vela), a pkg-config file (velanotification),
# the interface description, and velad (with what runs it as a system
# service) and velactl when they are built.
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
  # No RPATH where the dynamic linker looks anyway (/usr/lib/<multiarch>):
  # distributions forbid one there.
  if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    # Built where it is installed, relative to the library, velactl carries
    # the installed run path from the start. A run path rewritten at install
    # would end, in the build tree, in an empty entry that the dynamic linker
    # reads as the current directory: every library searched for there first.
    set_target_properties(velactl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}" BUILD_WITH_INSTALL_RPATH ON
                                             RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_BINDIR})
  endif()
  install(TARGETS velactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

# velad as a system service: its systemd unit, the D-Bus activation file that
# hands a first call to the unit, the bus policy that lets it own its name,
# the sysusers.d entry that makes its user, and its polkit actions.
#
# Installing into /usr, the unit and the sysusers.d entry go where systemd
# looks for them: VELA_SYSTEMD_UNIT_DIR and VELA_SYSUSERS_DIR, cache variables
# whose defaults are what systemd.pc says (/lib/systemd/system and
# /usr/lib/sysusers.d on Debian 12). Any other prefix gets lib/systemd/system
# and lib/sysusers.d inside it, so that an install into /usr/local or a
# scratch prefix never writes outside that prefix. The choice is made when
# installing, from the prefix then in force, so a tree configured for /usr
# and installed with cmake --install --prefix elsewhere stays inside it too.
if(TARGET velad)
  pkg_get_variable(vela_systemd_unit_dir systemd systemdsystemunitdir)
  pkg_get_variable(vela_systemd_sysusers_dir systemd sysusersdir)
  if(NOT vela_systemd_unit_dir)
    set(vela_systemd_unit_dir /usr/lib/systemd/system)
  endif()
  if(NOT vela_systemd_sysusers_dir)
    set(vela_systemd_sysusers_dir /usr/lib/sysusers.d)
  endif()
  set(VELA_SYSTEMD_UNIT_DIR ${vela_systemd_unit_dir}
      CACHE PATH "Where velad.service is installed when the prefix is /usr (else <prefix>/lib/systemd/system)")
  set(VELA_SYSUSERS_DIR ${vela_systemd_sysusers_dir}
      CACHE PATH "Where velad's sysusers.d entry is installed when the prefix is /usr (else <prefix>/lib/sysusers.d)")

  # vela_install_for_systemd(FILE SYSTEMD_DIR UNDER_PREFIX): FILE into
  # SYSTEMD_DIR (relative: under the prefix) when the install prefix is /usr,
  # else into UNDER_PREFIX inside the prefix. file(INSTALL) honours DESTDIR
  # and records the file in the install manifest.
  function(vela_install_for_systemd file systemd_dir under_prefix)
    if(NOT IS_ABSOLUTE "${systemd_dir}")
      set(systemd_dir "\${CMAKE_INSTALL_PREFIX}/${systemd_dir}")
    endif()
    install(CODE "
      if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
        set(vela_destination \"${systemd_dir}\")
      else()
        set(vela_destination \"\${CMAKE_INSTALL_PREFIX}/${under_prefix}\")
      endif()
      file(INSTALL DESTINATION \"\${vela_destination}\" TYPE FILE FILES \"${file}\")"
            COMPONENT tools)
  endfunction()

  set(VELA_INSTALL_FULL_SBINDIR ${CMAKE_INSTALL_FULL_SBINDIR})
  configure_file(${PROJECT_SOURCE_DIR}/data/systemd/velad.service.in ${PROJECT_BINARY_DIR}/velad.service @ONLY)
  vela_install_for_systemd(${PROJECT_BINARY_DIR}/velad.service ${VELA_SYSTEMD_UNIT_DIR} lib/systemd/system)
  vela_install_for_systemd(${PROJECT_SOURCE_DIR}/data/sysusers/velad.conf ${VELA_SYSUSERS_DIR} lib/sysusers.d)
  install(FILES ${PROJECT_SOURCE_DIR}/data/dbus/com.zentrex.VelaNotification.service
          DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system-services
          COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/data/dbus/com.zentrex.VelaNotification.conf
          DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d
          COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/data/polkit/com.zentrex.VelaNotification.policy
          DESTINATION ${CMAKE_INSTALL_DATADIR}/polkit-1/actions
          COMPONENT tools)
endif()
