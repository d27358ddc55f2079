# App rules and the App Rules window's presenter.
target_sources(tarry_logic PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/app_rules.cpp
  ${CMAKE_CURRENT_LIST_DIR}/app_list_controller.cpp
)
