add_executable(tarry_log_bench ${CMAKE_CURRENT_LIST_DIR}/log_bench.cpp)
target_link_libraries(tarry_log_bench PRIVATE tarry_logic tarry_linux tarry_qt tarry_sim tarry_warnings)
# TempDir from the tests' helpers.
target_include_directories(tarry_log_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
