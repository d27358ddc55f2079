# Installed applications from XDG desktop entries.
target_sources(tarry_linux PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/desktop_entry_reader.cpp
)
