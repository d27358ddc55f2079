# The desktop program on an X11 session (`tarry` without a command).
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/desktop.cpp)
target_link_libraries(tarry PRIVATE tarry_x11)
# Crash recorder, system crash reports and log upload.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/diagnostics_wiring.cpp)
