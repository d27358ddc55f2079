# Short sounds (the confirmation "Pop") through libpulse's asynchronous API, already linked above.
target_sources(tarry_linux PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/pulse_sound.cpp
)
