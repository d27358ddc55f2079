# Starting D-Bus activatable applications (Undo Quit's relaunch).
find_package(Qt6 REQUIRED COMPONENTS DBus)
target_sources(tarry_qt PRIVATE ${CMAKE_CURRENT_LIST_DIR}/qt_dbus_activation.cpp)
target_link_libraries(tarry_qt PUBLIC Qt6::DBus)
