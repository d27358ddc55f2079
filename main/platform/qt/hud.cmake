# The HUD panel, the screens, the main loop on the Qt event loop, and the icons shipped with the
# program (":/icons/<name>.svg").
target_sources(tarry_qt PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/qt_hud_panel.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_main_loop.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_screens.cpp
  ${CMAKE_CURRENT_LIST_DIR}/icons/hud_icons.qrc
)
# The panel asks the X server whether a compositing manager runs.
target_link_libraries(tarry_qt PRIVATE PkgConfig::XCB)
