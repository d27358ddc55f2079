add_executable(tarry_store_bench ${CMAKE_CURRENT_LIST_DIR}/store_bench.cpp)
target_link_libraries(tarry_store_bench PRIVATE tarry_linux SQLite::SQLite3 benchmark::benchmark tarry_warnings)
# TempDir from the tests' helpers.
target_include_directories(tarry_store_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
