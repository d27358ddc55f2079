# Processes (/proc), sound (PulseAudio or PipeWire's pulse server) and the desktop's identifier tables.
target_sources(tarry_linux PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/proc_process_info.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pulse_audio.cpp
  ${CMAKE_CURRENT_LIST_DIR}/desktop_identifiers.cpp
)
