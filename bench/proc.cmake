# The busy check's process work: tree walk and CPU reads over a tree of 400 spawned processes.
add_executable(tarry_proc_bench ${CMAKE_CURRENT_LIST_DIR}/proc_bench.cpp)
target_link_libraries(tarry_proc_bench PRIVATE tarry_logic tarry_linux benchmark::benchmark tarry_warnings)
