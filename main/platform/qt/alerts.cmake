# Modal alerts (QMessageBox).
target_sources(tarry_qt PRIVATE ${CMAKE_CURRENT_LIST_DIR}/qt_alerts.cpp)
