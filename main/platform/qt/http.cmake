target_sources(tarry_qt PRIVATE
  qt_http.cpp
)
