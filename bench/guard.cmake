# The guard's tap callback: an unguarded key and a guarded Ctrl+Q starting a hold (real SQLite store).
add_executable(tarry_guard_bench ${CMAKE_CURRENT_LIST_DIR}/guard_bench.cpp)
target_link_libraries(tarry_guard_bench PRIVATE tarry_logic tarry_sim tarry_linux benchmark::benchmark tarry_warnings)
target_include_directories(tarry_guard_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
