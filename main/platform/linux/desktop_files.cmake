# Installed applications from XDG desktop entries.
target_sources(tarry_linux PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/desktop_entry_reader.cpp
)
# Starting applications as the desktop's launcher does.
target_sources(tarry_linux PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/desktop_launcher.cpp
)
