// The desktop update path against a real server, for the tests and screenshots:
//   tarry-update-probe --server URL --version V --key HEX --exe PATH [--manual] [--answer N]
//                      [--qt-alerts] [--max-mb N] [--timeout-sec S] [--start-timeout S]
// Runs one check; prints every alert as "ALERT <message> | <informative>" and "QUIT" when an
// installed update runs, then exits (0 after QUIT, 1 otherwise).
#include "desktop/update_wiring.h"
#include "platform/qt/qt_http.h"
#include "platform/qt/qt_main_loop.h"
#include "platform/sim/memory_defaults_store.h"

#include <QApplication>
#include <QPushButton>
#include <QTimer>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace {

using namespace tarry;

class NoHud final : public guard::HudDisplay {
 public:
  void show(const std::string&, const platform::Icon&, double) override {}
  void update(double, double) override {}
  void setReasons(const std::vector<std::string>&) override {}
  void flash(const std::string&, const platform::Icon&, double) override {}
  void hideNow() override {}
};

/// Prints each alert, answers the offer with `answer`, and ends the run after any other alert.
class ScriptedAlerts final : public platform::Alerts {
 public:
  ScriptedAlerts(platform::MainLoop& loop, platform::Alerts* real, int answer)
      : loop_(loop), real_(real), answer_(answer) {}
  int runModal(const platform::AlertSpec& alert) override {
    std::printf("ALERT %s | %s\n", alert.message.c_str(), alert.informativeText.c_str());
    std::fflush(stdout);
    const bool offer = alert.buttons.size() == 2 && alert.buttons[0] == "Install and Restart";
    const int answer = real_ != nullptr ? real_->runModal(alert) : (offer ? answer_ : 0);
    if (!offer || answer != 0) loop_.dispatchMain([this] { loop_.quit(1); });
    return answer;
  }

 private:
  platform::MainLoop& loop_;
  platform::Alerts* real_;
  int answer_;
};

}  // namespace

int main(int argc, char** argv) {
  std::string server, version = "1.0", key, exe;
  bool manual = false, qtAlerts = false;
  int answer = 0;
  double maxMB = 0, timeoutSec = 0, startTimeout = 10, cancelAfter = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const auto next = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
    if (a == "--server")
      server = next();
    else if (a == "--version")
      version = next();
    else if (a == "--key")
      key = next();
    else if (a == "--exe")
      exe = next();
    else if (a == "--manual")
      manual = true;
    else if (a == "--qt-alerts")
      qtAlerts = true;
    else if (a == "--answer")
      answer = std::stoi(next());
    else if (a == "--max-mb")
      maxMB = std::stod(next());
    else if (a == "--timeout-sec")
      timeoutSec = std::stod(next());
    else if (a == "--start-timeout")
      startTimeout = std::stod(next());
    else if (a == "--cancel-after")
      cancelAfter = std::stod(next());
  }
  QApplication application(argc, argv);
  // Like the desktop program: closing a window never ends the run.
  QApplication::setQuitOnLastWindowClosed(false);
  platform::qt::QtMainLoop loop;
  platform::qt::QtHttp http;
  settings::Tunables tunables;
  if (maxMB > 0) tunables.setNumber(settings::T::updateMaxDownloadMB, maxMB);
  if (timeoutSec > 0) tunables.setNumber(settings::T::networkTimeoutSec, timeoutSec);
  tunables.setNumber(settings::T::updatePrefetch, 0);
  NoHud hud;
  platform::qt::QtAlerts realAlerts;
  ScriptedAlerts alerts(loop, qtAlerts ? &realAlerts : nullptr, answer);
  platform::os::LinuxUpdateTarget target(exe, startTimeout);
  platform::sim::MemoryDefaultsStore store;
  desktop::DesktopUpdates updates({loop,
                                   http,
                                   store,
                                   tunables,
                                   hud,
                                   [](std::string_view, std::int64_t) {},
                                   [](std::string line) { std::cerr << "log: " << line << '\n'; },
                                   [&loop] {
                                     std::printf("QUIT\n");
                                     std::fflush(stdout);
                                     loop.quit(0);
                                   },
                                   {},
                                   {},
                                   {},
                                   server,
                                   version,
                                   key,
                                   &alerts,
                                   &target});
  const platform::Scheduled start = loop.post([&] { updates.check(manual); });
  // Clicks the progress window's Cancel like a user would, then ends the run.
  platform::Scheduled cancel;
  if (cancelAfter > 0) {
    cancel = loop.after(cancelAfter, [&loop] {
      for (QWidget* window : QApplication::topLevelWidgets()) {
        if (!window->isVisible()) continue;
        for (QPushButton* button : window->findChildren<QPushButton*>()) {
          if (button->text() == QStringLiteral("Cancel") && button->isEnabled()) {
            std::printf("CANCEL\n");
            std::fflush(stdout);
            button->click();
          }
        }
      }
      QTimer::singleShot(2000, [&loop] { loop.quit(3); });
    });
  }
  // An automatic check that finds nothing says nothing: end the run after a while.
  const platform::Scheduled deadline = loop.after(30, [&loop] { loop.quit(2); });
  return loop.run();
}
