target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/remote_config_demo.cpp)
