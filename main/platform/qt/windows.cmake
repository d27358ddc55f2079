# The tray item and its menu, the Settings, Statistics and About windows, and bringing windows
# forward on X11.
target_sources(tarry_qt PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/qt_settings_window.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_small_windows.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_stats_window.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_status_item.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_window_raise.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_window_shortcuts.cpp
)
# QDBusServiceWatcher: the tray icon waits for a StatusNotifier host.
target_link_libraries(tarry_qt PUBLIC Qt6::DBus)
