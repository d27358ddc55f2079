# SHA-256 and Ed25519 through libsodium.
target_sources(tarry_linux PRIVATE ${CMAKE_CURRENT_LIST_DIR}/sodium_digest.cpp)
target_link_libraries(tarry_linux PUBLIC PkgConfig::SODIUM)
