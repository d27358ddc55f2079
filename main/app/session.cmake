# The session's desktop services: X11, sway or KDE Plasma (Wayland), or a message for other Wayland desktops.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/session_backends.cpp)
target_link_libraries(tarry PRIVATE tarry_x11 tarry_wayland tarry_wayland_hud tarry_kde)
# KWin's window helper lies next to the program in the build tree.
add_custom_command(TARGET tarry POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${TARRY_KWIN_SCRIPT} $<TARGET_FILE_DIR:tarry>/tarry-kwin.js)
