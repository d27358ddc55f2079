#pragma once

namespace tarry::app {

/// The program's one reverse-DNS id: desktop file, icon, metainfo and autostart entry.
inline constexpr const char* kAppId = "org.tarry.Tarry";

}  // namespace tarry::app
