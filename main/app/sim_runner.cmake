# tarry-sim: the scenario runner (the real guard on the simulated platform).
add_executable(tarry-sim
  ${CMAKE_CURRENT_LIST_DIR}/sim_runner.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sim_runner_main.cpp
)
target_link_libraries(tarry-sim PRIVATE tarry_logic tarry_sim tarry_warnings)
# Careful mode on simulated processes, sound and windows.
target_sources(tarry-sim PRIVATE ${CMAKE_CURRENT_LIST_DIR}/sim_careful.cpp)
