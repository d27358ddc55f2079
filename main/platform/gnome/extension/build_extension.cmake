# Writes one build of the Shell extension: HEAD + the shared body + TAIL as extension.js,
# metadata.json with the Shell versions of that build, and the top bar's symbolic icons.
#   cmake -DSOURCE_DIR=… -DOUT_DIR=… -DFORMAT=esm|legacy -DSHELL_VERSIONS=45,46
#         -DTARRY_EXTENSION_VERSION=N -DPROJECT_VERSION=x.y.z -P build_extension.cmake
file(READ ${SOURCE_DIR}/${FORMAT}-head.js head)
file(READ ${SOURCE_DIR}/tarry.js body)
file(READ ${SOURCE_DIR}/${FORMAT}-tail.js tail)
if(FORMAT STREQUAL "esm")
  # Module scope: no `var` globals are needed.
  string(REPLACE "var TarryGuard = class TarryGuard" "const TarryGuard = class TarryGuard" body "${body}")
endif()
file(MAKE_DIRECTORY ${OUT_DIR})
file(WRITE ${OUT_DIR}/extension.js.tmp "${head}${body}${tail}")
file(COPY_FILE ${OUT_DIR}/extension.js.tmp ${OUT_DIR}/extension.js ONLY_IF_DIFFERENT)
file(REMOVE ${OUT_DIR}/extension.js.tmp)
# 45,46 -> "45", "46"
string(REPLACE "," "\", \"" SHELL_VERSIONS "\"${SHELL_VERSIONS}\"")
configure_file(${SOURCE_DIR}/metadata.json.in ${OUT_DIR}/metadata.json @ONLY)
file(COPY ${SOURCE_DIR}/icons DESTINATION ${OUT_DIR})
