# Installing verified updates (folder swap with relaunch, or the system's package installer).
target_sources(tarry_linux PRIVATE ${CMAKE_CURRENT_LIST_DIR}/linux_update_target.cpp)
