#include "desktop/desktop.h"

#include "app/app_delegate.h"
#include "app/app_identity.h"
#include "common/counters.h"
#include "desktop/actions_wiring.h"
#include "desktop/desktop_shell.h"
#include "desktop/desktop_shell_wiring.h"
#include "desktop/diagnostics_wiring.h"
#include "desktop/session.h"
#include "desktop/store_notes.h"
#include "desktop/update_wiring.h"
#include "diagnostics/log.h"
#include "diagnostics/telemetry_sender.h"
#include "guard/careful_hold_policy.h"
#include "guard/guard.h"
#include "guard/hud.h"
#include "platform/gnome/gnome_event_tap.h"
#include "platform/linux/desktop_entry_reader.h"
#include "platform/linux/instance_lock.h"
#include "platform/linux/linux_file_system.h"
#include "platform/linux/linux_update_target.h"
#include "platform/linux/proc_process_info.h"
#include "platform/linux/pulse_audio.h"
#include "platform/linux/pulse_sound.h"
#include "platform/linux/sodium_digest.h"
#include "platform/linux/sqlite_defaults_store.h"
#include "platform/linux/xdg_autostart.h"
#include "platform/linux/xdg_paths.h"
#include "platform/qt/qt_alerts.h"
#include "platform/qt/qt_appearance.h"
#include "platform/qt/qt_consent_window.h"
#include "platform/qt/qt_hand_over_server.h"
#include "platform/qt/qt_http.h"
#include "platform/qt/qt_main_loop.h"
#include "platform/qt/qt_network_monitor.h"
#include "platform/qt/qt_screens.h"
#include "settings/preferences.h"
#include "settings/remote_config.h"
#include "settings/server_url.h"
#include "settings/settings_snapshot.h"
#include "settings/tunables.h"

#include <QApplication>
#include <QThreadPool>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
namespace tarry::desktop {
namespace {

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
  [[nodiscard]] std::string problem() const override { return inner_.problem(); }
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

/// What one running copy is per: the X display or the Wayland display of the session.
std::string displayName() { return detectSession().display; }

}  // namespace

int sendToRunningCopy(const std::string& request) {
  const std::string display = displayName();
  if (display.empty()) {
    std::fputs("tarry: cannot reach a running Tarry (neither DISPLAY nor WAYLAND_DISPLAY is set)\n", stderr);
    return 1;
  }
  platform::os::InstanceLock lock(platform::os::runtimeDirectory(), display);
  std::string error;
  if (lock.tryAcquire(error)) {
    std::fprintf(stderr, "tarry: Tarry is not running on display %s\n", display.c_str());
    return 1;
  }
  std::string reply;
  if (!lock.send(request, reply, error)) {
    std::fprintf(stderr, "tarry: the running Tarry did not answer: %s\n", error.c_str());
    return 1;
  }
  if (reply != "ok") {
    std::fprintf(stderr, "tarry: %s\n", reply.c_str());
    return 1;
  }
  return 0;
}

int runDesktop(int argc, char** argv, const DesktopOptions& options) {
  const Session session = detectSession();
  if (session.kind == Session::Kind::none) {
    std::fputs("tarry: cannot open the X display (DISPLAY is not set) nor a Wayland display\n", stderr);
    return 1;
  }
  const std::string& display = session.display;

  // One copy per user and display: a second launch hands over to the first and ends. A copy
  // started by an update is the exception: the old copy waits for it to run before it quits, so the
  // new one takes the lock over once the old one has gone (below).
  platform::os::InstanceLock instance(platform::os::runtimeDirectory(), display);
  std::string error;
  const bool startedByUpdate = std::getenv("TARRY_UPDATE_READY_FD") != nullptr;
  if (startedByUpdate) instance.adoptHandedOn();
  if (!instance.tryAcquire(error) && !startedByUpdate) {
    if (!error.empty()) {
      std::fprintf(stderr, "tarry: %s\n", error.c_str());
      return 1;
    }
    // Focus-stealing prevention lets the running copy raise Settings only with the token the
    // launcher gave this one.
    std::string request = "show-settings";
    for (const char* name : {"XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"}) {
      const char* token = std::getenv(name);
      if (token != nullptr && *token != '\0' &&
          std::string_view(token).find_first_of(" \n") == std::string_view::npos) {
        request += " " + std::string(token);
        break;
      }
    }
    std::string reply;
    if (!instance.send(request, reply, error)) {
      std::fprintf(stderr, "tarry: another Tarry runs on display %s but did not answer: %s\n",
                   display.c_str(), error.c_str());
      return 1;
    }
    return 0;
  }

  // The log and the crash recorder start before the toolkit does, so that a crash from here on
  // leaves its trace in crash.log. The application object is made after them but goes last, as
  // everything Qt made must go before it.
  std::optional<QApplication> application;
  platform::qt::QtMainLoop loop;
  StoreNotes storeNotes;
  platform::os::SqliteDefaultsStore store(platform::os::SqliteDefaultsStore::defaultPath(),
                                          storeNotes.callback());
  settings::Preferences prefs(store);
  settings::Tunables tunables;
  platform::os::LinuxFileSystem files;
  diagnostics::Log log(loop, files, store, tunables);
  const StoreNotes::Attached storeNotesLogged = storeNotes.attach(log);
  const auto diagnostics = startDesktopDiagnostics(log, files, store, tunables);
  common::Counters counters(store, loop);

  prepareQt(session);
  application.emplace(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);
  QGuiApplication::setDesktopFileName(QString::fromLatin1(app::kAppId));
  QApplication::setApplicationName(QStringLiteral("Tarry"));

  platform::os::DesktopEntryReader entries;
  std::unique_ptr<SessionBackends> backends = openSessionBackends(session, loop, entries, error);
  if (!backends) {
    std::fprintf(stderr, "tarry: %s\n", error.c_str());
    return 1;
  }
  platform::Workspace& workspace = backends->workspace();
  platform::WindowList& windows = backends->windows();
  platform::os::ProcProcessInfo processes;
  platform::os::PulseAudio audio;
  guard::CarefulHoldPolicy policy(
      {prefs, tunables, loop, workspace, processes, audio, windows},
      [&counters](std::string_view name, std::int64_t amount) { counters.add(name, amount); });

  platform::qt::QtScreens screens;
  std::unique_ptr<platform::HudPanel> panel =
      backends->makeHudPanel([&log](const std::string& line) { log.log(line); });
  guard::HUD hud(*panel, screens, loop, tunables);

  // On GNOME the Shell keeps the keyboard while a combination is held: for the longest hold at
  // most, and a margin (taken again when a fetched configuration changes the longest hold).
  auto* gnomeTap = dynamic_cast<platform::gnome::GnomeEventTap*>(&backends->tap());
  const auto takeHoldLimit = [gnomeTap, &tunables] {
    if (gnomeTap) gnomeTap->setHoldLimit(tunables.real(settings::T::maxHoldSec) + 2);
  };
  takeHoldLimit();

  std::unique_ptr<StallingTap> stalling;
  platform::EventTap* tap = &backends->tap();
  if (const char* stall = std::getenv("TARRY_DEBUG_STALL_ON_PRESS"); stall && std::atof(stall) > 0) {
    stalling = std::make_unique<StallingTap>(*tap, std::atof(stall));
    tap = stalling.get();
  }

  platform::os::PulseSound sound;
  platform::os::SodiumDigest digest;
  platform::NetworkStatus networkStatus;
  platform::qt::QtNetworkMonitor networkMonitor;
  platform::qt::QtHttp http([&log](const std::string& line) { log.log("network: " + line); });
  const std::string server = settings::serverBaseURL();
  diagnostics::TelemetrySender telemetry(
      {http, prefs, tunables, digest, workspace, networkStatus, server, TARRY_VERSION});
  settings::RemoteConfig remoteConfig(tunables, http, loop, server);
  platform::os::XdgAutostart loginItems(platform::os::configHome(), app::kAppId,
                                        platform::os::executablePath());
  platform::qt::QtAppearance appearance;
  platform::qt::QtAlerts alerts;
  platform::qt::QtConsentWindow consentWindow;
  AppActions actions(
      {loop, workspace, windows, *tap, entries, processes, alerts, prefs, tunables, counters, hud, log});
  guard::UndoHooks& undo = actions.undoHooks();

  app::AppDelegate delegate(
      app::AppDelegateDeps{loop, *tap, loginItems, appearance, alerts, networkMonitor, networkStatus,
                           consentWindow, workspace, prefs, tunables, remoteConfig, counters, log, telemetry,
                           hud, TARRY_VERSION, server},
      guard::GuardDeps{loop, *tap, workspace, sound, backends->activity(), prefs, tunables, counters, log,
                       hud, policy, undo, telemetry});
  telemetry.setSnapshotSource([&] {
    settings::SnapshotFacts facts;
    facts.accessibility = delegate.lastTrusted();
    facts.loginLaunch = delegate.loginLaunch();
    facts.updatedFrom = delegate.previousVersion();
    return settings::settingsSnapshot(prefs, loginItems, facts);
  });
  app::AppHooks& hooks = delegate.hooks();
  hooks.terminate = [&loop] { loop.quit(0); };
  // Undo Quit works from its construction on: the guard reaches it through `undo`, and it needs
  // nothing of the guard back.
  hooks.startUndo = [](const std::weak_ptr<guard::Guard>& /*guard*/) {};
  hooks.rescheduleRamSaver = [&actions] { actions.rescheduleRamSaver(); };
  hooks.tunablesApplied = takeHoldLimit;
  hooks.systemLog = [](const std::string& line) { std::fprintf(stderr, "tarry: %s\n", line.c_str()); };
  hooks.promptForTrust = [&log, tap] {
    // Linux desktops have no permission to prompt for: say, once at launch, why the guard cannot
    // work (the display is unreachable, or a Wayland desktop without a backend); Settings and the
    // menu show it too, and the poll starts the guard when it can.
    const std::string line = "keyboard guard off: " + tap->lastError();
    log.log(line);
    std::fprintf(stderr, "tarry: %s\n", line.c_str());
  };

  QObject::connect(&*application, &QGuiApplication::applicationStateChanged, &*application,
                   [&delegate](Qt::ApplicationState state) {
                     if (state == Qt::ApplicationActive) delegate.applicationDidBecomeActive();
                   });

  // The tray item and the windows (their own file; one call here).
  StatusItemPlacement placement;
  placement.wrap = [&backends](std::unique_ptr<platform::StatusItemView> tray) {
    return backends->wrapStatusItem(std::move(tray));
  };
  placement.shownElsewhere = [&backends] { return backends->statusItemShownElsewhere(); };
  DesktopShell shell({loop, store, counters, tunables, alerts, workspace, entries, server}, {}, 5000,
                     std::move(placement));
  wireDesktopShell(delegate, shell, *tap, loop, tunables, [&log](const std::string& line) { log.log(line); });
  shell.hooks().guardRoute = [&backends] { return backends->guardRoute(); };
  // The menu's Undo Quit, Recently Quit and Quit All Other Apps rows, and the RAM Saver's timer.
  ShellHooks& menu = shell.hooks();
  menu.undoTitle = [&actions] { return actions.currentUndoTitle(); };
  menu.undoQuit = [&actions] { actions.undoLast(); };
  menu.reopenRecent = [&actions, &telemetry](const std::string& path) {
    actions.reopenRecent(path);
    telemetry.send("reopened");
  };
  menu.quitOthers = [&actions] { actions.quitOthers(); };
  menu.rescheduleRamSaver = [&actions] { actions.rescheduleRamSaver(); };
  actions.undo().onChange = [&shell] { shell.statusMenu().refreshRows(); };

  // Logs and updates. Logging and the crash recorder started as soon as the log existed.
  hooks.startLogging = [] {};
  diagnostics->diagnostics.setSender({[&telemetry] { return telemetry.allowed(); },
                                      [&telemetry](const std::string& kind, nlohmann::json payload,
                                                   bool /*force*/, std::function<void(bool sent)> done) {
                                        if (!telemetry.send(kind, payload, done)) done(false);
                                      }});
  hooks.logUploaderTurn = [&diagnostics](bool force) { diagnostics->diagnostics.uploadLogs(force); };
  DesktopUpdates updates(
      {loop, http, store, tunables, hud,
       [&counters](std::string_view name, std::int64_t amount) { counters.add(name, amount); },
       [&log](const std::string& line) { log.log(line); }, [&loop] { loop.quit(0); },
       [&networkStatus] { return networkStatus.current().expensive; },
       // A hold, a first press waiting for its second, or the HUD on screen.
       [&delegate, &hud] {
         const guard::GuardState state = delegate.guardian().state();
         return state.armed || state.pendingPID != 0 || hud.onScreen();
       },
       workspace.ownIcon(), server, TARRY_VERSION, DesktopUpdates::builtInKeyHex(), &alerts, nullptr});
  hooks.automaticUpdateCheck = [&updates] { updates.check(false); };
  hooks.updateNudgeCheck = [&updates] { updates.noteBlockedQuit(); };
  menu.checkUpdates = [&updates] { updates.check(true); };

  platform::qt::QtHandOverServer handOver(
      [&delegate](const std::string& request) { return delegate.handOver(request); });
  const auto listen = [&instance, &handOver, &log] {
    std::string why;
    if (handOver.listen(instance.socketPath(), why)) return;
    log.log("hand-over socket: " + why);
    std::fprintf(stderr, "tarry: cannot listen at %s: %s\n", instance.socketPath().c_str(), why.c_str());
  };
  platform::Scheduled takeOver;
  if (instance.held() && !startedByUpdate) {
    updates.handOnLock(instance.descriptor());
    listen();
  } else {
    // Started by an update while the old copy still runs: it listens until it quits. The lock
    // came with this copy (or, from an older copy that kept it, is taken once that one is gone).
    constexpr double kTakeOverEverySec = 0.5;
    takeOver = loop.every(kTakeOverEverySec, [&instance, &takeOver, &listen, &updates] {
      std::string why;
      if (!instance.tryAcquire(why) || !instance.claimSocket()) return;
      takeOver.cancel();
      updates.handOnLock(instance.descriptor());
      listen();
    });
  }

  log.log("started on " + backends->description() + (options.loginLaunch ? " at login" : ""));
  int status = 0;
  {
    QuitOnSignal quitOnSignal(loop);
    // NOTE: after the signal watcher: SIGTERM at logout must reach applicationWillTerminate.
    delegate.applicationDidFinishLaunching(options.loginLaunch);
    // A copy started by an update says it runs once its loop does; until then the old copy waits.
    const platform::Scheduled started = loop.post([] { platform::os::LinuxUpdateTarget::reportStarted(); });
    status = loop.run();
  }
  delegate.applicationWillTerminate();
  delegate.guardian().removeTap();
  // NOTE: a busy or unsaved-work check may still be running on the global pool; it uses the
  // policy's processes, sound and windows and this loop, all destroyed on return, while Qt waits for
  // the pool only in QApplication's destructor, after them. Its answer, queued for the main thread,
  // is dropped with the loop.
  QThreadPool::globalInstance()->waitForDone();
  log.log("quit");
  store.flush();
  return status;
}

}  // namespace tarry::desktop
