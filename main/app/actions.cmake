# Undo Quit, Quit All Other Apps and the RAM Saver over the X11 desktop.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/actions_wiring.cpp)
