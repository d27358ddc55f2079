# On a headless sway: what tarry adds to a Ctrl+Q it lets through, and how soon its HUD shows
# (bench/sway_latency.py runs it; ctest does not). Needs the Wayland test client (tests on).
if(TARGET tarry-wayland-client)
  add_executable(tarry-sway-typist ${CMAKE_CURRENT_LIST_DIR}/sway_typist.cpp)
  target_link_libraries(tarry-sway-typist PRIVATE tarry_wayland tarry_warnings)
endif()
