target_sources(tarry_logic PRIVATE ${CMAKE_CURRENT_LIST_DIR}/defaults_command.cpp)
