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

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarry)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Tarry")
set(CPACK_PACKAGE_CONTACT "Tarry maintainers <maintainers@tarry.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Guard Ctrl+Q, Ctrl+W and Ctrl+Shift+Q against accidental presses")
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
