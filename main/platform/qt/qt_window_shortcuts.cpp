#include "platform/qt/qt_window_shortcuts.h"

#include <QCoreApplication>
#include <QKeyEvent>
#include <QWidget>

namespace tarry::platform::qt {

QtWindowShortcuts::QtWindowShortcuts(Actions actions) : actions_(std::move(actions)) {
  QCoreApplication::instance()->installEventFilter(this);
}

QtWindowShortcuts::~QtWindowShortcuts() {
  if (QCoreApplication::instance() != nullptr) QCoreApplication::instance()->removeEventFilter(this);
}

bool QtWindowShortcuts::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() != QEvent::KeyPress || qobject_cast<QWidget*>(watched) == nullptr) return false;
  const auto* key = static_cast<QKeyEvent*>(event);
  // Exactly Ctrl: Ctrl+Shift+Q and the like belong to other shortcuts.
  if (key->modifiers() != Qt::ControlModifier || key->isAutoRepeat()) return false;
  const std::function<void()>* action = nullptr;
  if (key->key() == Qt::Key_Comma) action = &actions_.openSettings;
  if (key->key() == Qt::Key_Q) action = &actions_.quit;
  if (action == nullptr || !*action) return false;
  (*action)();
  return true;
}

}  // namespace tarry::platform::qt
