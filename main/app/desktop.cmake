# The desktop program on an X11 session (`tarry` without a command).
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/desktop.cpp)
target_link_libraries(tarry PRIVATE tarry_x11)
# Crash recorder, system crash reports and log upload.
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/diagnostics_wiring.cpp)
# Update check and installer; the release signing key is fixed at build time.
set(TARRY_UPDATE_PUBLIC_KEY "" CACHE STRING "Ed25519 public key (64 hex digits) that release downloads are signed with")
target_sources(tarry PRIVATE ${CMAKE_CURRENT_LIST_DIR}/update_wiring.cpp)
target_compile_definitions(tarry PRIVATE TARRY_UPDATE_PUBLIC_KEY="${TARRY_UPDATE_PUBLIC_KEY}")
