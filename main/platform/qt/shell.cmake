# The desktop application's shell: hand-over socket server, consent window, network status, look.
target_sources(tarry_qt PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/qt_appearance.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_consent_window.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_hand_over_server.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_network_monitor.cpp
)
