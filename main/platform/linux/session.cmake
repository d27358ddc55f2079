# The running-copy lock with its hand-over socket, and launching at login (XDG autostart).
target_sources(tarry_linux PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/instance_lock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/xdg_autostart.cpp
)
