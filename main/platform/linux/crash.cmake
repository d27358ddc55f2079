# The crash recorder and the desktop's crash collectors (apport, systemd-coredump).
target_sources(tarry_linux PRIVATE ${CMAKE_CURRENT_LIST_DIR}/linux_crash_reports.cpp)
target_link_libraries(tarry_linux PUBLIC ${CMAKE_DL_LIBS})
