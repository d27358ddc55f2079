// A Wayland-native application for the end-to-end tests on sway: windows that log every key
// press and release, quit on Ctrl+Q, close on Ctrl+W, and close when the compositor asks.
//
//   tarry-wayland-client --log FILE [--windows N] [--app-id ID] [--no-quit]
//
// --no-quit keeps it running on Ctrl+Q (for measurements that press it many times).
//
// Log lines: "<monotonic µs> <event> <words...>":
//   ready <n> | press <Qt key> <Ctrl 0/1> <Shift 0/1> | release <Qt key> | close <window> |
//   close-request <window> | quit

#include <QApplication>
#include <QCloseEvent>
#include <QFile>
#include <QKeyEvent>
#include <QLabel>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

FILE* logFile = nullptr;
bool quitOnCtrlQ = true;

void logLine(const std::string& text) {
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::steady_clock::now().time_since_epoch())
                          .count();
  std::fprintf(logFile, "%lld %s\n", static_cast<long long>(micros), text.c_str());
  std::fflush(logFile);
}

class Window final : public QWidget {
 public:
  explicit Window(int index) : index_(index) {
    setWindowTitle(QStringLiteral("Tarry Wayland Client %1").arg(index));
    auto* layout = new QVBoxLayout(this);
    auto* label = new QLabel(QStringLiteral("Window %1 — type here").arg(index), this);
    QFont font = label->font();
    font.setPointSize(18);
    label->setFont(font);
    layout->addWidget(label);
    setStyleSheet(QStringLiteral("background: #2d5f8b; color: white;"));
    resize(640, 400);
  }

 protected:
  void keyPressEvent(QKeyEvent* event) override {
    const bool ctrl = event->modifiers() & Qt::ControlModifier;
    const bool shift = event->modifiers() & Qt::ShiftModifier;
    logLine("press " + std::to_string(event->key()) + " " + (ctrl ? "1" : "0") + " " + (shift ? "1" : "0") +
            (event->isAutoRepeat() ? " repeat" : ""));
    if (ctrl && !shift && event->key() == Qt::Key_Q && quitOnCtrlQ) {
      logLine("quit");
      QApplication::quit();
    } else if (ctrl && !shift && event->key() == Qt::Key_W) {
      closing_ = true;
      logLine("close " + std::to_string(index_));
      close();
    }
  }
  void keyReleaseEvent(QKeyEvent* event) override {
    if (!event->isAutoRepeat()) logLine("release " + std::to_string(event->key()));
  }
  void closeEvent(QCloseEvent* event) override {
    if (!closing_) logLine("close-request " + std::to_string(index_));
    event->accept();
  }

 private:
  int index_;
  bool closing_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  std::string logPath;
  std::string appId = "org.tarry.WaylandClient";
  int windows = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--log" && i + 1 < argc)
      logPath = argv[++i];
    else if (arg == "--windows" && i + 1 < argc)
      windows = std::atoi(argv[++i]);
    else if (arg == "--app-id" && i + 1 < argc)
      appId = argv[++i];
    else if (arg == "--no-quit")
      quitOnCtrlQ = false;
  }
  logFile = logPath.empty() ? stdout : std::fopen(logPath.c_str(), "a");
  if (!logFile) return 2;
  QApplication app(argc, argv);
  // Qt gives this to the compositor as the window's app_id.
  QGuiApplication::setDesktopFileName(QString::fromStdString(appId));
  std::vector<std::unique_ptr<Window>> list;
  for (int i = 0; i < windows; ++i) {
    list.push_back(std::make_unique<Window>(i));
    list.back()->show();
  }
  QTimer::singleShot(300, [windows] { logLine("ready " + std::to_string(windows)); });
  const int status = QApplication::exec();
  logLine("exit");
  std::fflush(logFile);
  // NOTE: Qt 6.4's Wayland teardown can hang for good: ~QWaylandDisplay waits for its event
  // thread, which waits in wl_display_read_events (seen here in about one run in four once sway
  // sent window events to a second IPC subscriber). What the tests look at ends with the event
  // loop, so the process ends here.
  std::_Exit(status);
}
