#pragma once

#include <string>

namespace tarry::platform {

/// What the About window shows.
struct AboutTexts {
  std::string title;
  std::string name;
  /// "Version 1.2.0".
  std::string version;
  std::string description;
  std::string licence;
  /// "Server: https://…" when one is configured, else empty (the line is hidden).
  std::string server;
  /// Name of the shipped icon.
  std::string icon;
};

/// The About window: draws what it is told.
class AboutView {
 public:
  AboutView() = default;
  AboutView(const AboutView&) = delete;
  AboutView& operator=(const AboutView&) = delete;
  virtual ~AboutView() = default;

  virtual void setTexts(const AboutTexts& texts) = 0;
  /// Shows the window (centred the first time) and brings it forward.
  virtual void present() = 0;
};

}  // namespace tarry::platform
