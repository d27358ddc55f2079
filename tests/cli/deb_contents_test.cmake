# Builds the Debian package from the build folder and checks what it holds.
#   cmake -DBUILD_DIR=... -DOUT_DIR=... -P deb_contents_test.cmake
file(REMOVE_RECURSE ${OUT_DIR})
file(MAKE_DIRECTORY ${OUT_DIR})
execute_process(COMMAND cpack -G DEB -B ${OUT_DIR} --config ${BUILD_DIR}/CPackConfig.cmake
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cpack failed:\n${output}")
endif()
file(GLOB debs ${OUT_DIR}/tarry_*.deb)
list(LENGTH debs count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one package in ${OUT_DIR}, found: ${debs}")
endif()
execute_process(COMMAND dpkg-deb -c ${debs} OUTPUT_VARIABLE contents RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "dpkg-deb cannot read ${debs}")
endif()
set(wanted ./usr/bin/tarry ./usr/share/applications/org.tarry.Tarry.desktop
  ./usr/share/metainfo/org.tarry.Tarry.metainfo.xml ./usr/share/icons/hicolor/scalable/apps/org.tarry.Tarry.svg
  ./usr/share/tarry/tarry-kwin.js
  # The GNOME Shell extension: in the Shell's folder, and both builds for a copy of the user's own.
  ./usr/share/gnome-shell/extensions/tarry@tarry.org/extension.js
  ./usr/share/gnome-shell/extensions/tarry@tarry.org/metadata.json
  ./usr/share/gnome-shell/extensions/tarry@tarry.org/icons/tarry-on-symbolic.svg
  ./usr/share/gnome-shell/extensions/tarry@tarry.org/icons/tarry-off-symbolic.svg
  ./usr/share/gnome-shell/extensions/tarry@tarry.org/icons/tarry-paused-symbolic.svg
  ./usr/share/tarry/gnome-extension/esm/tarry@tarry.org/icons/tarry-on-symbolic.svg
  ./usr/share/tarry/gnome-extension/legacy/tarry@tarry.org/icons/tarry-paused-symbolic.svg
  ./usr/share/tarry/gnome-extension/esm/tarry@tarry.org/extension.js
  ./usr/share/tarry/gnome-extension/legacy/tarry@tarry.org/extension.js)
foreach(size 16 24 32 48 64 128 256)
  list(APPEND wanted ./usr/share/icons/hicolor/${size}x${size}/apps/org.tarry.Tarry.png)
endforeach()
foreach(path IN LISTS wanted)
  string(FIND "${contents}" " ${path}\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the package lacks ${path}:\n${contents}")
  endif()
endforeach()
# KWin offers its fake input only to a launcher that starts the program by its absolute path.
execute_process(COMMAND dpkg-deb -x ${debs} ${OUT_DIR}/root RESULT_VARIABLE status)
file(READ ${OUT_DIR}/root/usr/share/applications/org.tarry.Tarry.desktop entry)
foreach(line "Exec=/usr/bin/tarry\n" "X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input\n")
  string(FIND "${entry}" "${line}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the launcher lacks ${line}:\n${entry}")
  endif()
endforeach()
execute_process(COMMAND dpkg-deb -f ${debs} Depends OUTPUT_VARIABLE depends)
foreach(package qt6-qpa-plugins libqt6svg6 libqt6widgets6 libsqlite3-0 libsodium23 libxcb1)
  string(FIND "${depends}" "${package}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the package does not depend on ${package}: ${depends}")
  endif()
endforeach()

# What a distribution asks of a package: lintian finds no error and no warning (overrides, each with
# its reason, are in packaging/lintian-overrides).
find_program(LINTIAN lintian)
if(NOT LINTIAN)
  message(FATAL_ERROR "lintian is missing (scripts/install-deps.sh installs it)")
endif()
execute_process(COMMAND ${LINTIAN} --display-info --fail-on none ${debs}
  OUTPUT_VARIABLE lintian_output ERROR_VARIABLE lintian_output RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "lintian could not check the package (${status}):\n${lintian_output}")
endif()
if(lintian_output MATCHES "(^|\n)[EW]: ")
  message(FATAL_ERROR "lintian finds errors or warnings in the package:\n${lintian_output}")
endif()
foreach(path ./usr/share/man/man1/tarry.1.gz ./usr/share/doc/tarry/copyright ./usr/share/doc/tarry/changelog.Debian.gz)
  string(FIND "${contents}" " ${path}\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the package lacks ${path}:\n${contents}")
  endif()
endforeach()

# The program in the package is hardened as Debian's own are: position-independent, its relocations
# read-only once bound at start (full RELRO), a stack protector, and checked string and memory
# functions where the build is optimised.
if(NOT HARDENED)
  return()
endif()
set(root ${OUT_DIR}/root)
execute_process(COMMAND dpkg-deb -x ${debs} ${root} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "dpkg-deb cannot unpack ${debs}")
endif()
set(program ${root}/usr/bin/tarry)
execute_process(COMMAND readelf -W --file-header --program-headers --dynamic --dyn-syms ${program}
  OUTPUT_VARIABLE elf RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "readelf cannot read ${program}")
endif()
set(expectations
  "Type: +DYN" "a position-independent executable"
  "GNU_RELRO" "a RELRO segment"
  "\\(FLAGS\\)[^\n]*BIND_NOW|\\(FLAGS_1\\)[^\n]*NOW" "binding at start (-z now)"
  "UND __stack_chk_fail" "the stack protector")
if(FORTIFIED)
  list(APPEND expectations "UND __[a-z_]+_chk(@|$| )" "checked functions (_FORTIFY_SOURCE)")
endif()
while(expectations)
  list(POP_FRONT expectations pattern what)
  if(NOT elf MATCHES "${pattern}")
    message(FATAL_ERROR "${program} lacks ${what} (readelf finds no ${pattern})")
  endif()
endwhile()
