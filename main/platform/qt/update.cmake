# Update downloads and their progress window.
target_sources(tarry_qt PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/qt_downloader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/qt_progress_window.cpp
)
