# The GNOME Shell extension, in two builds from one source: GNOME 45 and later (ES modules) and
# GNOME 43-44 (imports.gi). Tarry installs the one that fits the running Shell.
set(TARRY_EXTENSION_UUID "tarry@tarry.org")
# Raised whenever the extension changes: a Tarry finds an older copy in the user's folder and
# replaces it.
set(TARRY_EXTENSION_VERSION 4)
set(TARRY_EXTENSION_DIR ${CMAKE_BINARY_DIR}/gnome-extension CACHE INTERNAL "")

set(extension_source ${CMAKE_CURRENT_LIST_DIR})
set(extension_icons
  ${extension_source}/icons/tarry-on-symbolic.svg
  ${extension_source}/icons/tarry-off-symbolic.svg
  ${extension_source}/icons/tarry-paused-symbolic.svg)
set(extension_outputs)
# Each build lists the Shell versions it was run on (the Shell refuses to load it on others).
foreach(format esm legacy)
  if(format STREQUAL "esm")
    set(versions "46,48,49,50")
  else()
    set(versions 43)
  endif()
  set(out ${TARRY_EXTENSION_DIR}/${format}/${TARRY_EXTENSION_UUID})
  add_custom_command(
    OUTPUT ${out}/extension.js ${out}/metadata.json
    COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${extension_source} -DOUT_DIR=${out} -DFORMAT=${format}
      -DSHELL_VERSIONS=${versions} -DTARRY_EXTENSION_VERSION=${TARRY_EXTENSION_VERSION}
      -DPROJECT_VERSION=${PROJECT_VERSION} -P ${extension_source}/build_extension.cmake
    DEPENDS ${extension_source}/tarry.js ${extension_source}/${format}-head.js
      ${extension_source}/${format}-tail.js ${extension_source}/metadata.json.in
      ${extension_source}/build_extension.cmake ${extension_icons}
    COMMENT "GNOME Shell extension (${format})")
  list(APPEND extension_outputs ${out}/extension.js ${out}/metadata.json)
endforeach()
add_custom_target(tarry_gnome_extension ALL DEPENDS ${extension_outputs})

# Installed: both builds under share/tarry (a Tarry run from elsewhere copies the one that fits into
# the user's extension folder), and the one for the Shell of the system it is built for in the Shell's
# system folder, where the package's users find it enabled by the program at first start.
include(GNUInstallDirs)
set(TARRY_GNOME_SHELL_FORMAT "" CACHE STRING "The extension build for the system folder: esm (GNOME 45+) or legacy (43-44); found from gnome-shell --version when empty")
set(extension_format ${TARRY_GNOME_SHELL_FORMAT})
if(NOT extension_format)
  set(extension_format esm)
  find_program(GNOME_SHELL_PROGRAM gnome-shell)
  if(GNOME_SHELL_PROGRAM)
    execute_process(COMMAND ${GNOME_SHELL_PROGRAM} --version OUTPUT_VARIABLE shell_version ERROR_QUIET)
    if(shell_version MATCHES "([0-9]+)\\." AND CMAKE_MATCH_1 LESS 45)
      set(extension_format legacy)
    endif()
  endif()
endif()
install(DIRECTORY ${TARRY_EXTENSION_DIR}/esm ${TARRY_EXTENSION_DIR}/legacy
  DESTINATION ${CMAKE_INSTALL_DATADIR}/tarry/gnome-extension)
install(DIRECTORY ${TARRY_EXTENSION_DIR}/${extension_format}/${TARRY_EXTENSION_UUID}
  DESTINATION ${CMAKE_INSTALL_DATADIR}/gnome-shell/extensions)
