# The delay tarry adds to key presses at the application, on a private Xvfb + openbox desktop.
# A program that prints figures; ctest does not run it. Needs the X11 test support (tests on).
if(TARGET tarry_x11_test_support AND TARGET tarry-test-client)
  add_executable(tarry_latency_bench ${CMAKE_CURRENT_LIST_DIR}/latency_bench.cpp)
  target_link_libraries(tarry_latency_bench PRIVATE tarry_x11_test_support PkgConfig::XCB tarry_warnings)
  target_compile_definitions(tarry_latency_bench PRIVATE
    TARRY_BINARY="$<TARGET_FILE:tarry>" TARRY_TEST_CLIENT="$<TARGET_FILE:tarry-test-client>")
  add_dependencies(tarry_latency_bench tarry tarry-test-client)
endif()
