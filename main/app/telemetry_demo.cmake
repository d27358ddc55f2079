# `tarry -- telemetry - demo`: the settings snapshot of the usage events.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR} / telemetry_demo.cpp)
