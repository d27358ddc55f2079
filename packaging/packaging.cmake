# Installing Tarry like any Linux desktop program (`cmake --install`), and its Debian package
# (`cpack -G DEB`). The one reverse-DNS id names the launcher, the icon and the metainfo.
include(GNUInstallDirs)
set(TARRY_APP_ID org.tarry.Tarry)

install(TARGETS tarry RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The launcher starts the program by its absolute path, known only at install time (cpack installs
# under its own prefix): KWin offers its fake input only to a program whose desktop file does.
install(CODE "
  file(READ \"${CMAKE_CURRENT_LIST_DIR}/${TARRY_APP_ID}.desktop\" entry)
  string(REPLACE \"\nExec=tarry\n\" \"\nExec=\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/tarry\n\" entry \"\${entry}\")
  file(WRITE \"${CMAKE_BINARY_DIR}/packaging/${TARRY_APP_ID}.desktop\" \"\${entry}\")
")
install(FILES ${CMAKE_BINARY_DIR}/packaging/${TARRY_APP_ID}.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
# KWin's window helper (see main/platform/kde).
install(FILES ${TARRY_KWIN_SCRIPT} DESTINATION ${CMAKE_INSTALL_DATADIR}/tarry)
configure_file(${CMAKE_CURRENT_LIST_DIR}/${TARRY_APP_ID}.metainfo.xml
               ${CMAKE_BINARY_DIR}/packaging/${TARRY_APP_ID}.metainfo.xml @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/${TARRY_APP_ID}.metainfo.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
# The PNG sizes are drawn from the SVG as part of the build.
add_executable(tarry-render-icon ${CMAKE_CURRENT_LIST_DIR}/render_icon.cpp)
target_link_libraries(tarry-render-icon PRIVATE Qt6::Gui Qt6::Svg)
set(tarry_icon_svg ${CMAKE_CURRENT_LIST_DIR}/icons/scalable/${TARRY_APP_ID}.svg)
set(tarry_icon_pngs)
foreach(size 16 24 32 48 64 128 256)
  set(png ${CMAKE_BINARY_DIR}/packaging/icons/${size}x${size}/${TARRY_APP_ID}.png)
  add_custom_command(OUTPUT ${png}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging/icons/${size}x${size}
    COMMAND tarry-render-icon ${tarry_icon_svg} ${size} ${png}
    DEPENDS tarry-render-icon ${tarry_icon_svg}
    COMMENT "Drawing the ${size}x${size} icon")
  list(APPEND tarry_icon_pngs ${png})
  install(FILES ${png} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps)
endforeach()
add_custom_target(tarry-icons ALL DEPENDS ${tarry_icon_pngs})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/icons/scalable/${TARRY_APP_ID}.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)

# The manual page, the copyright file and the package's changelog, compressed as Debian wants them
# (gzip -9n: no name or time stamp, so the same sources give the same bytes). The manual page is
# drawn from the table `tarry --help` prints, with the sections around it from tarry.1.in.
set(TARRY_DEB_RELEASE 1)
set(TARRY_DEB_VERSION ${PROJECT_VERSION}-${TARRY_DEB_RELEASE})
add_executable(tarry-man-page ${CMAKE_CURRENT_LIST_DIR}/man_page.cpp)
target_link_libraries(tarry-man-page PRIVATE tarry_usage tarry_warnings)
set(tarry_man ${CMAKE_BINARY_DIR}/packaging/tarry.1)
add_custom_command(OUTPUT ${tarry_man} ${tarry_man}.gz
  COMMAND tarry-man-page ${CMAKE_CURRENT_LIST_DIR}/tarry.1.in ${PROJECT_VERSION} ${tarry_man}
  COMMAND gzip -9nf -k ${tarry_man}
  DEPENDS tarry-man-page ${CMAKE_CURRENT_LIST_DIR}/tarry.1.in
  COMMENT "Writing the manual page tarry(1)")
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.Debian.in ${CMAKE_BINARY_DIR}/packaging/changelog.Debian @ONLY)
set(tarry_changelog ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
add_custom_command(OUTPUT ${tarry_changelog}
  COMMAND gzip -9nf -k ${CMAKE_BINARY_DIR}/packaging/changelog.Debian
  DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog.Debian
  COMMENT "Compressing the package's changelog")
add_custom_target(tarry-docs ALL DEPENDS ${tarry_man}.gz ${tarry_changelog})
install(FILES ${tarry_man}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${tarry_changelog}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tarry)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME tarry)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarry)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Tarry")
set(CPACK_PACKAGE_CONTACT "Tarry maintainers <maintainers@tarry.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Guard Ctrl+Q, Ctrl+W and Ctrl+Shift+Q against accidental presses")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION [[
Tarry sits in the tray and guards the keyboard shortcuts that end work by
accident: Ctrl+Q (quit the application in front), Ctrl+W (close its window)
and Ctrl+Shift+Q. It swallows the press and lets it through only when the keys
are held until a meter fills, or pressed twice.

Per-application rules, a careful mode that asks for a longer hold while a
terminal runs a command, the microphone is in use or a window has unsaved
work, Undo Quit (Ctrl+Alt+Z brings a quit application back with its windows),
Quit All Other Apps, a RAM Saver that quits applications left idle, and
statistics of the shortcuts it caught are part of it.

Tarry guards X11 desktops with an EWMH window manager, and on Wayland sway,
KDE Plasma (through KWin's global shortcuts and a KWin script) and GNOME
(through a GNOME Shell extension that the package installs).]])
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TARRY_DEB_RELEASE})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
# Qt loads these as plugins, which dpkg-shlibdeps cannot see: the xcb platform (the program runs
# on X11), SVG icons, and NetworkManager's network-information backend. Qt's Wayland platform is
# for sway sessions.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins, libqt6svg6, libqt6network6")
# pkexec installs an update package; dbus-send and xdg-open show where a downloaded update was put
# when it cannot (the program says so itself if they are missing).
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pulseaudio | pipewire-pulse, qt6-wayland, pkexec, dbus-bin, xdg-utils")
include(CPack)
