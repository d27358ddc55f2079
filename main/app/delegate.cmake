# The application delegate (launch sequence, consent gate, poll, pause) and its consent controller.
target_sources(tarry_logic PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/app_delegate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/consent_controller.cpp
)
