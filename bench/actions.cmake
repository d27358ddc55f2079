# Undo Quit's capture of an app with 20 windows and a RAM Saver scan of 100 running apps, on a
# private Xvfb + openbox desktop. Needs the X11 test support (tests on).
if(TARGET tarry_x11_test_support AND TARGET tarry-test-client)
  add_executable(tarry_actions_bench ${CMAKE_CURRENT_LIST_DIR}/actions_bench.cpp)
  target_link_libraries(tarry_actions_bench PRIVATE tarry_logic tarry_sim tarry_x11 tarry_linux
    tarry_x11_test_support benchmark::benchmark tarry_warnings)
  target_compile_definitions(tarry_actions_bench PRIVATE TARRY_TEST_CLIENT="$<TARGET_FILE:tarry-test-client>")
  add_dependencies(tarry_actions_bench tarry-test-client)
endif()
