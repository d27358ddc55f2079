# The session's desktop services: X11, sway or GNOME (Wayland), or a message for other Wayland desktops.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/session_backends.cpp ${CMAKE_CURRENT_LIST_DIR}/gnome_session.cpp)
target_link_libraries(tarry PRIVATE tarry_x11 tarry_wayland tarry_wayland_hud tarry_gnome)
