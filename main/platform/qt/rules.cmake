# The App Rules window.
target_sources(tarry_qt PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/qt_app_list_window.cpp
)
