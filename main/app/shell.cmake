# The status menu and the About texts (logic).
target_sources(tarry_logic PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/status_menu.cpp
  ${CMAKE_CURRENT_LIST_DIR}/about.cpp
)
# The tray item and the windows wired together for the desktop program.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/desktop_shell.cpp ${CMAKE_CURRENT_LIST_DIR}/desktop_shell_wiring.cpp)
