# `tarry apps`: the running apps with their ids, names and rules.
target_sources(tarry_logic PRIVATE ${CMAKE_CURRENT_LIST_DIR}/apps_command.cpp)
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/apps_main.cpp)
target_link_libraries(tarry PRIVATE tarry_x11)
