#include "app/app_delegate.h"

#include "common/counters.h"
#include "diagnostics/log.h"
#include "diagnostics/telemetry_sender.h"
#include "guard/basic_hold_policy.h"
#include "guard/no_undo.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_app_services.h"
#include "platform/sim/sim_platform.h"
#include "settings/preferences.h"
#include "settings/remote_config.h"
#include "settings/tunables.h"
#include "support/recording_hud.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace tarry::app {
namespace {

using settings::T;

/// The delegate on the simulated platform, with every hook recording its call in `calls`.
class AppDelegateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // 2026-03-14 05:00:00 local (UTC here).
    p.loop.setWallClock(1'773'464'400.0);
    p.files.createDirectories("/logs");
    p.defaults.set("logDir", "/logs");
    p.defaults.set("consentVersion", 1);
  }

  void make(std::string server = "") {
    delegate.reset();
    sender = std::make_unique<diagnostics::TelemetrySender>(diagnostics::TelemetrySender::Deps{
        p.http, prefs, tunables, digest, p.workspace, network, server, "1.2.0"});
    remote = std::make_unique<settings::RemoteConfig>(tunables, p.http, p.loop, server);
    delegate = std::make_unique<AppDelegate>(
        AppDelegateDeps{p.loop, p.tap, p.loginItems, p.appearance, alerts, monitor, network, consentView,
                        p.workspace, prefs, tunables, *remote, counters, log, *sender, hud, "1.2.0", server},
        guard::GuardDeps{p.loop, p.tap, p.workspace, p.sound, p.activity, prefs, tunables, counters, log, hud,
                         policy, undo, *sender});
    AppHooks& h = delegate->hooks();
    const auto record = [this](std::string name) { return [this, name] { calls.push_back(name); }; };
    h.setUpMainMenu = record("mainMenu");
    h.setUpStatusItem = record("statusItem");
    h.refreshStatusItem = [this](bool paused) { calls.push_back(paused ? "status paused" : "status"); };
    h.showSettingsWindow = [this] {
      calls.emplace_back("settings");
      settingsVisible = true;
    };
    h.settingsWindowVisible = [this] { return settingsVisible; };
    h.startUndo = [this](std::weak_ptr<guard::Guard> g) {
      calls.push_back(g.lock() ? "undo" : "undo without guard");
    };
    h.automaticUpdateCheck = record("updateCheck");
    h.logUploaderTurn = [this](bool force) { calls.push_back(force ? "upload forced" : "upload"); };
    h.promptForTrust = record("prompt");
    h.terminate = record("terminate");
  }

  [[nodiscard]] int count(const std::string& name) const {
    return static_cast<int>(std::count(calls.begin(), calls.end(), name));
  }
  [[nodiscard]] std::string logText() {
    p.loop.serialQueue("app.log").drain();
    return p.files.content("/logs/events.log");
  }
  [[nodiscard]] std::vector<std::string> posted() const {
    std::vector<std::string> events;
    for (const auto& r : p.http.requests) {
      if (r.url.ends_with("/api/t")) events.push_back(nlohmann::json::parse(r.body)["event"]);
    }
    return events;
  }

  platform::sim::SimPlatform p;
  platform::sim::SimAlerts alerts;
  platform::sim::SimConsentView consentView;
  platform::sim::SimNetworkMonitor monitor;
  platform::sim::SimDigest digest;
  platform::NetworkStatus network;
  settings::Preferences prefs{p.defaults};
  settings::Tunables tunables;
  common::Counters counters{p.defaults, p.loop};
  diagnostics::Log log{p.loop, p.files, p.defaults, tunables};
  test_support::RecordingHud hud;
  guard::BasicHoldPolicy policy{prefs, tunables};
  guard::NoUndo undo;
  std::unique_ptr<diagnostics::TelemetrySender> sender;
  std::unique_ptr<settings::RemoteConfig> remote;
  std::unique_ptr<AppDelegate> delegate;
  std::vector<std::string> calls;
  bool settingsVisible = false;
};

TEST_F(AppDelegateTest, BeforeConsentOnlyTheConsentWindowExistsAndAgreeLaunches) {
  p.defaults.remove("consentVersion");
  make("https://tarry.test");
  delegate->applicationDidFinishLaunching(false);
  p.loop.advance(30);
  EXPECT_TRUE(consentView.visible);
  EXPECT_EQ(consentView.shown.title, "Welcome to Tarry");
  EXPECT_EQ(consentView.shown.privacyURL, "https://tarry.test/privacy");
  EXPECT_FALSE(delegate->tapActive());
  EXPECT_FALSE(delegate->launched());
  EXPECT_TRUE(p.http.requests.empty()) << "no network before consent";
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(counters.allTime("launches"), 0);

  // A second launch meanwhile shows the consent window again.
  EXPECT_EQ(delegate->handOver("show-settings"), "ok");
  EXPECT_EQ(consentView.presentCount, 2);

  consentView.clickAgree();
  EXPECT_FALSE(consentView.visible);
  EXPECT_EQ(p.defaults.get("consentVersion"), nlohmann::json(1));
  EXPECT_TRUE(delegate->launched());
  EXPECT_TRUE(delegate->tapActive());
  EXPECT_EQ(counters.allTime("launches"), 1);
  EXPECT_EQ(posted(), std::vector<std::string>{"launch"});
}

TEST_F(AppDelegateTest, DisagreeEndsTheProgramWithNothingStarted) {
  p.defaults.remove("consentVersion");
  make("https://tarry.test");
  delegate->applicationDidFinishLaunching(false);
  consentView.clickDisagree();
  EXPECT_EQ(calls, std::vector<std::string>{"terminate"});
  delegate->applicationWillTerminate();
  EXPECT_FALSE(delegate->tapActive());
  EXPECT_TRUE(p.http.requests.empty()) << "no quit event without consent";
  EXPECT_FALSE(p.defaults.get("consentVersion").has_value());
}

TEST_F(AppDelegateTest, LaunchSequenceRunsOnceInOrder) {
  make();
  delegate->applicationDidFinishLaunching(false);
  EXPECT_EQ(calls, (std::vector<std::string>{"upload", "mainMenu", "undo", "statusItem", "settings"}));
  EXPECT_TRUE(delegate->tapActive());
  EXPECT_EQ(p.loginItems.registerCalls, 1);
  EXPECT_EQ(p.defaults.get("loginDefaultDone"), nlohmann::json(true));
  EXPECT_TRUE(p.appearance.applied.has_value());
  EXPECT_EQ(monitor.startCount, 1);
  EXPECT_EQ(counters.allTime("activeDays"), 1);
  EXPECT_EQ(counters.allTime("open.settings"), 1);

  calls.clear();
  delegate->runLaunchSequence();
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(counters.allTime("launches"), 1);
  EXPECT_EQ(monitor.startCount, 1);
}

TEST_F(AppDelegateTest, LoginLaunchOpensNoWindowUnlessTheGuardCannotWork) {
  make();
  delegate->applicationDidFinishLaunching(true);
  EXPECT_EQ(count("settings"), 0);
  EXPECT_TRUE(delegate->tapActive());
  EXPECT_GT(delegate->pollInterval(), 0) << "the poll runs";

  // Without keyboard access, a login launch asks for it and shows Settings.
  SetUp();
  p.tap.trusted = false;
  calls.clear();
  AppDelegateTest::make();
  delegate->applicationDidFinishLaunching(true);
  EXPECT_EQ(count("prompt"), 1);
  EXPECT_EQ(count("settings"), 1);
  EXPECT_FALSE(delegate->tapActive());
}

TEST_F(AppDelegateTest, VersionBookkeepingShowsTheBannerOnlyAfterAnUpdate) {
  make();
  delegate->applicationDidFinishLaunching(true);  // first launch ever
  EXPECT_TRUE(hud.flashes.empty());
  EXPECT_EQ(counters.allTime("updated"), 0);
  EXPECT_EQ(p.defaults.get("lastVersion"), nlohmann::json("1.2.0"));

  make();  // same version again
  delegate->applicationDidFinishLaunching(true);
  EXPECT_TRUE(hud.flashes.empty());

  p.defaults.set("lastVersion", "1.1.9");
  make();
  delegate->applicationDidFinishLaunching(true);
  EXPECT_EQ(hud.flashes, std::vector<std::string>{"Tarry updated to 1.2.0"});
  EXPECT_EQ(counters.allTime("updated"), 1);
  EXPECT_EQ(delegate->previousVersion(), "1.1.9");
}

TEST_F(AppDelegateTest, OneAutomaticUpdateCheckAndAPingTimerThatFollowsTheFetchedInterval) {
  // The configuration fetch answers with a shorter ping interval.
  p.http.responder = [](const platform::HttpRequest& r) {
    return platform::HttpResponse{true, 200, r.url.ends_with("/api/t") ? "" : R"({"pingMinutes": 10})", ""};
  };
  make("https://tarry.test");
  delegate->applicationDidFinishLaunching(true);
  p.loop.runDue();
  p.loop.advance(tunables.real(T::firstCheckDelaySec) - 0.01);
  EXPECT_EQ(count("updateCheck"), 0);
  p.loop.advance(0.02);
  EXPECT_EQ(count("updateCheck"), 1);

  p.loop.advance(600);
  p.loop.runDue();
  EXPECT_EQ(posted(), (std::vector<std::string>{"launch", "ping"}));
  p.loop.advance(600);
  p.loop.runDue();
  EXPECT_EQ(posted(), (std::vector<std::string>{"launch", "ping", "ping"}));
  EXPECT_EQ(count("updateCheck"), 1) << "at most one automatic check per process";
  EXPECT_EQ(counters.allTime("update.auto"), 1);
}

TEST_F(AppDelegateTest,
       RamSaverTimerAndBackendsTunablesAreRenewedOnTheMainThreadAfterEachAppliedDocumentOnly) {
  // Each configuration fetch is answered in turn by the next of these; events are accepted.
  std::vector<platform::HttpResponse> answers{
      {true, 200, R"({"ramSaverCheckMin": 7, "maxHoldSec": 20})", ""},
      {true, 404, "", ""},
      {false, 0, "", "timed out"},
      {true, 200, R"({"ramSaverCheckMin": 12, "maxHoldSec": 30})", ""}};
  std::size_t next = 0;
  p.http.responder = [&](const platform::HttpRequest& r) {
    if (r.url.ends_with("/api/t")) return platform::HttpResponse{true, 200, "", ""};
    return answers.at(next++);
  };
  std::vector<double> rebuiltWith;
  make("https://tarry.test");
  std::vector<double> longestHolds;
  delegate->hooks().rescheduleRamSaver = [&] { rebuiltWith.push_back(tunables.real(T::ramSaverCheckMin)); };
  delegate->hooks().tunablesApplied = [&] { longestHolds.push_back(tunables.real(T::maxHoldSec)); };
  delegate->applicationDidFinishLaunching(true);
  EXPECT_TRUE(rebuiltWith.empty() && longestHolds.empty()) << "the rebuild waits for the main loop";
  p.loop.runDue();
  EXPECT_EQ(rebuiltWith, std::vector<double>{7});
  const double ping = tunables.real(T::pingMinutes) * 60;
  for (int i = 0; i < 3; ++i) {
    p.loop.advance(ping);
    p.loop.runDue();
  }
  EXPECT_EQ(next, 4U);
  EXPECT_EQ(rebuiltWith, (std::vector<double>{7, 12})) << "a failed fetch rebuilds nothing";
  EXPECT_EQ(longestHolds, (std::vector<double>{20, 30}));
}

TEST_F(AppDelegateTest, PingsGoOnWhileAConfigurationFetchNeverAnswers) {
  // No responder: the configuration requests wait for ever (the telemetry posts too).
  make("https://tarry.test");
  delegate->applicationDidFinishLaunching(true);
  p.loop.runDue();
  p.loop.advance(tunables.real(T::pingMinutes) * 60 * 2);
  p.loop.runDue();
  EXPECT_EQ(posted(), (std::vector<std::string>{"launch", "ping", "ping"}));
  const auto fetches = std::count_if(p.http.requests.begin(), p.http.requests.end(), [](const auto& r) {
    return r.url.ends_with(settings::kRemoteConfigPath);
  });
  EXPECT_EQ(fetches, 3) << "the launch fetch and one per ping";
}

TEST_F(AppDelegateTest, PollIntervalsTrustChangesAndRunTime) {
  make();
  delegate->applicationDidFinishLaunching(false);  // Settings is on screen: fast poll
  EXPECT_DOUBLE_EQ(delegate->pollInterval(), 0.5);
  settingsVisible = false;
  p.loop.advance(0.5);
  EXPECT_DOUBLE_EQ(delegate->pollInterval(), 3.0);

  // Keyboard access goes away: the guard lets go of its keys at the next tick.
  p.tap.trusted = false;
  p.loop.advance(3.0);
  EXPECT_FALSE(delegate->tapActive());
  EXPECT_EQ(counters.allTime("axLost"), 1);
  EXPECT_DOUBLE_EQ(delegate->pollInterval(), 0.5);
  EXPECT_NE(logText().find("keyboard access trusted=false grabs=false"), std::string::npos);

  // It comes back, but another program holds a combination: retried until the grab works.
  p.tap.trusted = true;
  p.tap.failCreate = true;
  p.loop.advance(0.5);
  EXPECT_FALSE(delegate->tapActive());
  EXPECT_EQ(counters.allTime("axGranted"), 1);
  p.tap.failCreate = false;
  p.loop.advance(0.5);
  EXPECT_TRUE(delegate->tapActive());
  EXPECT_NE(logText().find("keyboard access trusted=true grabs=true"), std::string::npos);

  // runSeconds: whole seconds, only after a minute of uptime.
  const auto before = counters.allTime("runSeconds");
  p.loop.advance(70);
  EXPECT_GE(counters.allTime("runSeconds") - before, 60);
  EXPECT_LE(counters.allTime("runSeconds") - before, 70);
}

TEST_F(AppDelegateTest, PauseArithmeticAndItsEndShownWithinOnePoll) {
  make();
  delegate->applicationDidFinishLaunching(true);
  const double now = p.loop.now();
  delegate->pauseFor(15);
  EXPECT_DOUBLE_EQ(prefs.pauseUntil(), now + 900);
  EXPECT_TRUE(delegate->lastPaused());
  EXPECT_EQ(counters.allTime("pause"), 1);

  // Until tomorrow: 05:59 → 06:00 the same day; 06:00 or later → 06:00 the next day.
  const double day = 1'773'446'400.0;  // 2026-03-14 00:00 UTC
  p.loop.setUtcOffset(3600);           // local = UTC+1
  EXPECT_DOUBLE_EQ(nextSixAM(p.loop, day + 4 * 3600 + 59 * 60), day + 5 * 3600);
  EXPECT_DOUBLE_EQ(nextSixAM(p.loop, day + 5 * 3600), day + 5 * 3600 + 86400);
  EXPECT_DOUBLE_EQ(nextSixAM(p.loop, day + 5 * 3600 + 0.5), day + 5 * 3600 + 86400);
  p.loop.setUtcOffset(0);

  // The pause runs out while idle: the status item hears of it within one steady interval.
  calls.clear();
  p.loop.advance(900 + 3.0);
  EXPECT_EQ(count("status"), 1);
  EXPECT_FALSE(delegate->lastPaused());

  EXPECT_EQ(delegate->handOver("pause 60"), "ok");
  EXPECT_TRUE(delegate->paused());
  EXPECT_EQ(delegate->handOver("resume"), "ok");
  EXPECT_FALSE(delegate->paused());
  EXPECT_EQ(prefs.pauseUntil(), 0);
  EXPECT_EQ(delegate->handOver("pause soon").rfind("error:", 0), 0u);
}

TEST_F(AppDelegateTest, ReopenSoonAfterOwnActivationIsIgnored) {
  make();
  delegate->applicationDidFinishLaunching(false);  // opens Settings: the presenter activated
  EXPECT_EQ(count("settings"), 1);
  p.loop.advance(1.0);
  EXPECT_EQ(delegate->handOver("show-settings"), "ok");
  EXPECT_EQ(count("settings"), 1);
  p.loop.advance(1.5);
  EXPECT_TRUE(delegate->applicationShouldHandleReopen());
  EXPECT_EQ(count("settings"), 2);
}

TEST_F(AppDelegateTest, TerminateLogsSendsQuitAndForcesTheUploadOnce) {
  make("https://tarry.test");
  p.http.responder = [](const platform::HttpRequest&) { return platform::HttpResponse{true, 200, "{}", ""}; };
  delegate->applicationDidFinishLaunching(true);
  calls.clear();
  delegate->applicationWillTerminate();
  delegate->applicationWillTerminate();
  EXPECT_EQ(calls, std::vector<std::string>{"upload forced"});
  EXPECT_EQ(posted(), (std::vector<std::string>{"launch", "quit"}));
  EXPECT_NE(logText().find(" terminate\n"), std::string::npos);
}

}  // namespace
}  // namespace tarry::app
