#include "app/desktop.h"

#include "app/diagnostics_wiring.h"

#include "diagnostics/basic_app_telemetry.h"
#include "diagnostics/log.h"
#include "guard/careful_hold_policy.h"
#include "guard/guard.h"
#include "guard/hud.h"
#include "guard/no_undo.h"
#include "platform/linux/desktop_entry_reader.h"
#include "platform/linux/linux_file_system.h"
#include "platform/linux/linux_update_target.h"
#include "platform/linux/proc_process_info.h"
#include "platform/linux/pulse_audio.h"
#include "platform/linux/pulse_sound.h"
#include "platform/linux/sqlite_defaults_store.h"
#include "platform/qt/qt_hud_panel.h"
#include "platform/qt/qt_main_loop.h"
#include "platform/qt/qt_screens.h"
#include "platform/x11/x11_activity.h"
#include "platform/x11/x11_display.h"
#include "platform/x11/x11_event_tap.h"
#include "platform/x11/x11_window_list.h"
#include "platform/x11/x11_workspace.h"
#include "settings/preferences.h"
#include "settings/tunables.h"
#include "stats/counters.h"

#include <QApplication>
#include <QThreadPool>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace tarry::app {
namespace {

constexpr double kRetryTapSec = 2.0;

/// A hidden debugging aid: with TARRY_DEBUG_STALL_ON_PRESS=<seconds> the main thread sleeps that
/// long on the next guarded press before the guard sees it, to show that the keyboard is let go
/// while the program is stuck.
class StallingTap final : public platform::EventTap {
 public:
  StallingTap(platform::EventTap& inner, double seconds) : inner_(inner), seconds_(seconds) {}
  [[nodiscard]] bool isTrusted() override { return inner_.isTrusted(); }
  [[nodiscard]] std::unique_ptr<platform::TapHandle> create(Callback callback) override {
    return inner_.create([this, callback = std::move(callback)](const platform::KeyEvent& event) {
      if (seconds_ > 0 && event.type == platform::EventType::keyDown && guard::Guard::classify(event)) {
        const double seconds = seconds_;
        seconds_ = 0;
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
      }
      return callback(event);
    });
  }
  [[nodiscard]] std::string lastError() const override { return inner_.lastError(); }
  [[nodiscard]] bool listenAccessGranted() override { return inner_.listenAccessGranted(); }
  void requestListenAccess() override { inner_.requestListenAccess(); }
  void post(const platform::KeyEvent& event) override { inner_.post(event); }

 private:
  platform::EventTap& inner_;
  double seconds_;
};

// ---- Signals ----

int signalPipe[2] = {-1, -1};

void onSignal(int /*signal*/) {
  const char byte = 1;
  // NOTE: write() is async-signal-safe; nothing else happens in the handler.
  [[maybe_unused]] const ssize_t n = write(signalPipe[1], &byte, 1);
}

/// Ends `loop` on SIGINT or SIGTERM from a small thread, so the program can flush its
/// preferences and lift its grabs on the way out.
class QuitOnSignal final {
 public:
  explicit QuitOnSignal(platform::MainLoop& loop) {
    if (pipe(signalPipe) != 0) return;
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    watcher_ = std::thread([&loop] {
      char byte = 0;
      while (read(signalPipe[0], &byte, 1) == 1) {
        if (byte == 0) return;  // the destructor's wake-up
        loop.dispatchMain([&loop] { loop.quit(0); });
      }
    });
  }
  ~QuitOnSignal() {
    if (!watcher_.joinable()) return;
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    const char stop = 0;
    [[maybe_unused]] const ssize_t n = write(signalPipe[1], &stop, 1);
    watcher_.join();
    close(signalPipe[0]);
    close(signalPipe[1]);
  }
  QuitOnSignal(const QuitOnSignal&) = delete;
  QuitOnSignal& operator=(const QuitOnSignal&) = delete;

 private:
  std::thread watcher_;
};

}  // namespace

int runDesktop(int argc, char** argv) {
  const char* displayName = std::getenv("DISPLAY");
  if (displayName == nullptr || *displayName == '\0') {
    std::fputs("tarry: cannot open the X display (DISPLAY is not set)\n", stderr);
    return 1;
  }
  std::string error;
  std::unique_ptr<platform::x11::X11Display> display = platform::x11::X11Display::open(displayName, error);
  if (!display) {
    std::fprintf(stderr, "tarry: %s\n", error.c_str());
    return 1;
  }
  // The guard works through X; its HUD must live on the same server even inside a Wayland
  // session that offers Xwayland.
  setenv("QT_QPA_PLATFORM", "xcb", 0);

  QApplication application(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);
  platform::qt::QtMainLoop loop;

  platform::os::SqliteDefaultsStore store(platform::os::SqliteDefaultsStore::defaultPath(),
                                          [](const std::string& line) { std::cerr << "tarry: " << line << '\n'; });
  settings::Preferences prefs(store);
  settings::Tunables tunables;
  platform::os::LinuxFileSystem files;
  diagnostics::Log log(loop, files, store, tunables);
  const auto diagnostics = startDesktopDiagnostics(log, files, store, tunables);
  stats::Counters counters(store, loop);
  counters.start();

  platform::os::DesktopEntryReader entries;
  platform::x11::X11Workspace workspace(*display, entries);
  platform::x11::X11WindowList windows(*display);
  platform::os::ProcProcessInfo processes;
  platform::os::PulseAudio audio;
  guard::CarefulHoldPolicy policy({prefs, tunables, loop, workspace, processes, audio, windows},
                                  [&counters](std::string_view name, std::int64_t amount) {
                                    counters.add(name, amount);
                                  });

  platform::qt::QtScreens screens;
  platform::qt::QtHudPanel panel;
  guard::HUD hud(panel, screens, loop, tunables);

  platform::x11::X11EventTap x11Tap(loop);
  std::unique_ptr<StallingTap> stalling;
  platform::EventTap* tap = &x11Tap;
  if (const char* stall = std::getenv("TARRY_DEBUG_STALL_ON_PRESS"); stall && std::atof(stall) > 0) {
    stalling = std::make_unique<StallingTap>(x11Tap, std::atof(stall));
    tap = stalling.get();
  }

  platform::os::PulseSound sound;
  // On the display's own connection: the server ends the suspension if the program dies mid-hold.
  platform::x11::X11Activity power(display->connection());
  guard::NoUndo undo;
  diagnostics::BasicAppTelemetry telemetry(workspace);
  guard::Guard guard(guard::GuardDeps{loop, *tap, workspace, sound, power, prefs, tunables, counters, log, hud,
                                      policy, undo, telemetry});

  log.log("started on X display " + std::string(displayName));
  // Another program may hold one of the combinations; try again now and then, as one would wait
  // for a permission.
  platform::Scheduled retry;
  if (guard.installTap()) {
    log.log("keyboard guard on");
  } else {
    const std::string why = tap->lastError();
    log.log("keyboard guard off: " + why);
    std::fprintf(stderr, "tarry: the keyboard guard is off: %s\n", why.c_str());
    retry = loop.every(kRetryTapSec, [&] {
      if (!guard.installTap()) return;
      log.log("keyboard guard on");
      retry.cancel();
    });
  }

  int status = 0;
  {
    QuitOnSignal quitOnSignal(loop);
    // A copy started by an update says it runs once its loop does; until then the old copy waits.
    const platform::Scheduled started = loop.post([] { platform::os::LinuxUpdateTarget::reportStarted(); });
    status = loop.run();
  }
  guard.removeTap();
  // NOTE: a busy or unsaved-work check may still be running on the global pool; it uses the
  // policy's processes, sound and windows and this loop, all destroyed on return, while Qt waits for
  // the pool only in QApplication's destructor, after them. Its answer, queued for the main thread,
  // is dropped with the loop.
  QThreadPool::globalInstance()->waitForDone();
  log.log("quit");
  store.flush();
  return status;
}

}  // namespace tarry::app
