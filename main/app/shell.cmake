# The status menu, the About texts and the window presenter (logic).
target_sources(tarry_logic PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/status_menu.cpp
  ${CMAKE_CURRENT_LIST_DIR}/window_presenter.cpp
  ${CMAKE_CURRENT_LIST_DIR}/about.cpp
)
