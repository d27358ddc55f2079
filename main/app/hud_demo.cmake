# `tarry --hud-demo`.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/hud_demo.cpp)
# It checks that the X display can be reached before Qt, which would abort, tries it.
target_link_libraries(tarry PRIVATE PkgConfig::XCB)
