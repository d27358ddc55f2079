# The GNOME Shell extension, in two builds from one source: GNOME 45 and later (ES modules) and
# GNOME 43-44 (imports.gi). Tarry installs the one that fits the running Shell.
set(TARRY_EXTENSION_UUID "tarry@tarry.org")
# Raised whenever the extension changes: a Tarry finds an older copy in the user's folder and
# replaces it.
set(TARRY_EXTENSION_VERSION 1)
set(TARRY_EXTENSION_DIR ${CMAKE_BINARY_DIR}/gnome-extension CACHE INTERNAL "")

set(extension_source ${CMAKE_CURRENT_LIST_DIR})
set(extension_outputs)
foreach(format esm legacy)
  if(format STREQUAL "esm")
    set(versions [["45", "46", "47", "48"]])
  else()
    set(versions [["43", "44"]])
  endif()
  set(out ${TARRY_EXTENSION_DIR}/${format}/${TARRY_EXTENSION_UUID})
  add_custom_command(
    OUTPUT ${out}/extension.js ${out}/metadata.json
    COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${extension_source} -DOUT_DIR=${out} -DFORMAT=${format}
      "-DSHELL_VERSIONS=${versions}" -DTARRY_EXTENSION_VERSION=${TARRY_EXTENSION_VERSION}
      -DPROJECT_VERSION=${PROJECT_VERSION} -P ${extension_source}/build_extension.cmake
    DEPENDS ${extension_source}/tarry.js ${extension_source}/${format}-head.js
      ${extension_source}/${format}-tail.js ${extension_source}/metadata.json.in
      ${extension_source}/build_extension.cmake
    COMMENT "GNOME Shell extension (${format})")
  list(APPEND extension_outputs ${out}/extension.js ${out}/metadata.json)
endforeach()
add_custom_target(tarry_gnome_extension ALL DEPENDS ${extension_outputs})
