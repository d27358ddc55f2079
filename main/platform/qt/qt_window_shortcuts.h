#pragma once

#include <QObject>

#include <functional>

namespace tarry::platform::qt {

/// The program's keyboard shortcuts in every window of its own, which on Linux stand in for an
/// application menu bar: Ctrl+, opens Settings and Ctrl+Q quits Tarry (it reaches a window only
/// when the guard lets it through, as for any app). Ctrl+W closes each window by its own shortcut;
/// the editing shortcuts come with the text fields themselves.
/// NOTE: installed as an event filter on the application; it only looks at key presses.
class QtWindowShortcuts final : public QObject {
 public:
  struct Actions {
    std::function<void()> openSettings;
    std::function<void()> quit;
  };

  explicit QtWindowShortcuts(Actions actions);
  ~QtWindowShortcuts() override;
  QtWindowShortcuts(const QtWindowShortcuts&) = delete;
  QtWindowShortcuts& operator=(const QtWindowShortcuts&) = delete;

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  Actions actions_;
};

}  // namespace tarry::platform::qt
