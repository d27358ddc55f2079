add_executable(tarry_shell_bench ${CMAKE_CURRENT_LIST_DIR}/shell_bench.cpp)
target_link_libraries(tarry_shell_bench PRIVATE tarry_qt tarry_logic tarry_linux benchmark::benchmark tarry_warnings)
# TempDir from the tests' helpers.
target_include_directories(tarry_shell_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
