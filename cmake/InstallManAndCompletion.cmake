# SPDX-License-Identifier: MIT
# The man pages, with the project's version filled in, and velactl's bash
# completion, each installed with the program it describes.

if(TARGET velactl)
  configure_file(${PROJECT_SOURCE_DIR}/data/man/velactl.1.in ${PROJECT_BINARY_DIR}/man/velactl.1 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/man/velactl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)

  # Where bash-completion looks when installing into /usr; the same place
  # relative to any other prefix. Always relative, so that a prefix given at
  # install time (cmake --install --prefix) is honoured and nothing lands
  # outside it.
  set(vela_completions_dir ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    pkg_get_variable(vela_system_completions_dir bash-completion completionsdir)
    if(vela_system_completions_dir MATCHES "^/usr/(.+)$")
      set(vela_completions_dir ${CMAKE_MATCH_1})
    endif()
  endif()
  set(VELA_BASH_COMPLETION_DIR ${vela_completions_dir}
      CACHE STRING "Where velactl's bash completion is installed, relative to the prefix")
  install(FILES ${PROJECT_SOURCE_DIR}/data/completion/velactl
          DESTINATION ${VELA_BASH_COMPLETION_DIR}
          COMPONENT tools)
endif()

if(TARGET velad)
  configure_file(${PROJECT_SOURCE_DIR}/data/man/velad.8.in ${PROJECT_BINARY_DIR}/man/velad.8 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/man/velad.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tools)
endif()
