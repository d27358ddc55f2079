target_sources(tarry_linux PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/linux_file_system.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sqlite_defaults_store.cpp
)
