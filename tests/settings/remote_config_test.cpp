#include "settings/remote_config.h"

#include "guard/hud_display.h"
#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_http.h"
#include "platform/sim/sim_main_loop.h"
#include "settings/announcement.h"
#include "settings/server_url.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace tarry::settings {
namespace {

using platform::HttpResponse;

HttpResponse ok(const std::string& body) { return HttpResponse{true, 200, body, ""}; }

std::string repeat(const std::string& piece, int times) {
  std::string s;
  for (int i = 0; i < times; ++i) s += piece;
  return s;
}

TEST(RemoteConfigApplyTest, NumbersAreClampedTruncatedAndTurnedIntoFlags) {
  Tunables t;
  ASSERT_TRUE(applyRemoteConfig(t, ok(R"({
      "holdTickHz": 500, "busySampleMs": 5, "reportsKept": 2.9, "appSetCap": -3, "hudShadow": 0.5,
      "telemetryPaused": true, "logUploadPaused": 7, "pingMinutes": true, "permissionPollSec": 1e300,
      "hudVerticalOffset": -151, "recentsMax": 18446744073709551616, "unknownKey": 3})")));
  EXPECT_EQ(t.real(T::holdTickHz), 120);
  EXPECT_EQ(t.real(T::busySampleMs), 100);
  EXPECT_EQ(t.real(T::reportsKept), 2);  // truncated when applied, not only when read
  EXPECT_EQ(t.integer(T::appSetCap), 100);
  EXPECT_FALSE(t.flag(T::hudShadow));
  EXPECT_TRUE(t.flag(T::telemetryPaused));
  EXPECT_EQ(t.real(T::logUploadPaused), 1);
  EXPECT_EQ(t.real(T::pingMinutes), 1);
  EXPECT_EQ(t.real(T::permissionPollSec), 1e300);  // no upper bound
  EXPECT_EQ(t.real(T::hudVerticalOffset), -150);
  EXPECT_EQ(t.integer(T::recentsMax), 50);

  // A second, partial document changes only what it validly names.
  ASSERT_TRUE(applyRemoteConfig(t, ok(R"({"holdTickHz": 5, "hudShadow": true, "reportsKept": "7",
      "maxHoldSec": null, "undoWindowSec": [60], "neverQuitExtra": {"a": 1}, "announceText": 12})")));
  EXPECT_EQ(t.real(T::holdTickHz), 20);
  EXPECT_TRUE(t.flag(T::hudShadow));
  EXPECT_EQ(t.real(T::reportsKept), 2);
  EXPECT_EQ(t.real(T::busySampleMs), 100);
  EXPECT_EQ(t.real(T::maxHoldSec), 14);
  EXPECT_EQ(t.real(T::undoWindowSec), 30);
  EXPECT_EQ(t.text(T::neverQuitExtra), "");
  EXPECT_EQ(t.text(T::announceText), "");

  // Not reachable through the parser (it refuses 1e999), but a non-finite value takes the lower
  // bound wherever it comes from.
  applyConfigObject(t, {{"holdTickHz", std::numeric_limits<double>::quiet_NaN()},
                        {"recentsMax", std::numeric_limits<double>::infinity()}});
  EXPECT_EQ(t.real(T::holdTickHz), 20);
  EXPECT_EQ(t.integer(T::recentsMax), 1);
}

TEST(RemoteConfigApplyTest, RejectedDocumentsChangeNothing) {
  const std::string fine = R"({"holdTickHz": 30, "announceText": "x"})";
  const HttpResponse rejected[] = {
      HttpResponse{true, 404, fine, ""},
      HttpResponse{true, 500, fine, ""},
      HttpResponse{false, 0, fine, "connection refused"},
      ok(""),
      ok(R"([{"holdTickHz": 30}])"),
      ok(R"("holdTickHz")"),
      ok("null"),
      ok(R"({"holdTickHz": 30,)"),
      ok(R"({"holdTickHz": 30} trailing)"),
      ok(R"({"holdTickHz": NaN})"),
      ok(R"({"holdTickHz": 30, "x": 1e999})"),
      ok("{\"announceText\": \"\xff\xfe\"}"),  // not UTF-8
      ok(repeat("[", 100000)),
  };
  for (const auto& r : rejected) {
    Tunables t;
    EXPECT_FALSE(applyRemoteConfig(t, r)) << r.status << " " << r.body.substr(0, 40);
    EXPECT_EQ(t.real(T::holdTickHz), 60);
    EXPECT_EQ(t.text(T::announceText), "");
  }
}

TEST(RemoteConfigApplyTest, TextsKeepTheirFirstCharactersNotBytes) {
  Tunables t;
  const std::string huge = repeat("ab,", 400000);
  const nlohmann::json doc = {{"announceText", repeat("é", 250)},
                              {"updateNudgeText", repeat("🙂", 130)},
                              {"neverQuitExtra", huge},
                              {"ramSaverSkipExtra", "a\xcc\x81z"}};
  ASSERT_TRUE(applyRemoteConfig(t, ok(doc.dump())));
  EXPECT_EQ(t.text(T::announceText), repeat("é", 200));
  EXPECT_EQ(t.text(T::updateNudgeText), repeat("🙂", 120));
  EXPECT_EQ(t.text(T::neverQuitExtra), huge.substr(0, 500));
  EXPECT_EQ(firstCharacters("a\xcc\x81z", 2), "a\xcc\x81");  // a combining accent counts on its own

  // An empty nudge text is ignored; an empty announcement text clears the announcement.
  ASSERT_TRUE(applyRemoteConfig(t, ok(R"({"updateNudgeText": "", "announceText": ""})")));
  EXPECT_EQ(t.text(T::updateNudgeText), repeat("🙂", 120));
  EXPECT_EQ(t.text(T::announceText), "");
}

// The defaults' line and real documents: remote_config_demo_test.py against the program.
TEST(RemoteConfigApplyTest, DemoLineUsesShortestRoundTripNumbers) {
  Tunables t;
  applyConfigObject(t, {{"hudCornerRadius", 0.1 + 0.2},
                        {"hudShadow", false},
                        {"meterGreenThreshold", 1},
                        {"bannerFillAlpha", 1e-7},
                        {"hudVerticalOffset", -12.5}});
  EXPECT_EQ(remoteConfigDemoLine(t),
            "hudCornerRadius=0.30000000000000004 hudShadow=false meterGreenThreshold=0.95 "
            "meterYellowThreshold=0.75 bannerFillAlpha=1e-07 hudVerticalOffset=-12.5");
}

TEST(RemoteConfigFetchTest, RequestsTheDocumentAndRunsTheHookOnTheMainQueueAfterAnApply) {
  EXPECT_EQ(serverBaseURL("http://127.0.0.1:9/"), "http://127.0.0.1:9");
  EXPECT_EQ(serverBaseURL(""), TARRY_SERVER_URL);

  Tunables tunables;
  platform::sim::SimHttp http;
  platform::sim::SimMainLoop loop;
  RemoteConfig config(tunables, http, loop, "http://127.0.0.1:9");
  std::vector<std::string> order;
  config.setAppliedHook([&] { order.push_back("hook"); });
  const auto done = [&](bool applied) { order.push_back(applied ? "applied" : "unchanged"); };

  config.fetch(done);
  ASSERT_EQ(http.requests.size(), 1u);
  EXPECT_EQ(http.requests[0].url, "http://127.0.0.1:9/api/tarry-config");
  EXPECT_EQ(http.requests[0].headers,
            (decltype(http.requests[0].headers){{"User-Agent", std::string("Tarry/") + TARRY_VERSION}}));
  EXPECT_EQ(http.requests[0].cachePolicy, platform::CachePolicy::ignoreLocalCache);
  EXPECT_EQ(http.requests[0].timeoutSec, 10);
  http.respond(ok(R"({"networkTimeoutSec": 99})"));
  EXPECT_EQ(order, (std::vector<std::string>{"applied"}));  // the hook waits for the main queue
  loop.runDue();
  EXPECT_EQ(order, (std::vector<std::string>{"applied", "hook"}));

  config.fetch(done);
  EXPECT_EQ(http.requests.back().timeoutSec, 60);
  http.respond(HttpResponse{true, 404, R"({"networkTimeoutSec": 20})", ""});
  loop.runDue();
  EXPECT_EQ(order, (std::vector<std::string>{"applied", "hook", "unchanged"}));
}

TEST(RemoteConfigFetchTest, NoServerOrAGoneOwnerChangeNothingButStillComplete) {
  Tunables tunables;
  platform::sim::SimHttp http;
  platform::sim::SimMainLoop loop;
  bool completed = false;
  fetchRemoteConfig(http, tunables, "", [&](const HttpResponse& r, bool applied) {
    completed = !r.received && !r.error.empty() && !applied;
  });
  EXPECT_TRUE(completed);
  EXPECT_TRUE(http.requests.empty());

  int hookRuns = 0;
  completed = false;
  {
    RemoteConfig config(tunables, http, loop, "http://127.0.0.1:9");
    config.setAppliedHook([&] { ++hookRuns; });
    config.fetch([&](bool) { completed = true; });
  }
  http.respond(ok(R"({"holdTickHz": 30})"));
  loop.runDue();
  EXPECT_TRUE(completed);
  EXPECT_EQ(hookRuns, 0);
}

class MockHud : public guard::HudDisplay {
 public:
  MOCK_METHOD(void, show, (const std::string&, const platform::Icon&, double), (override));
  MOCK_METHOD(void, update, (double, double), (override));
  MOCK_METHOD(void, setReasons, (const std::vector<std::string>&), (override));
  MOCK_METHOD(void, flash, (const std::string&, const platform::Icon&, double), (override));
  MOCK_METHOD(void, hideNow, (), (override));
};

TEST(AnnouncementTest, EachAnnouncementShowsOncePerUser) {
  Tunables t;
  platform::sim::MemoryDefaultsStore store;
  Preferences prefs(store);
  ::testing::StrictMock<MockHud> hud;
  const platform::Icon icon{"tarry", 0, 0, nullptr};

  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // none configured
  applyConfigObject(t, {{"announceId", 3}});
  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // no text

  applyConfigObject(t, {{"announceText", "New: per-app rules"}, {"announceSec", 6}});
  EXPECT_CALL(hud, flash("New: per-app rules", icon, 6.0)).WillOnce([&] {
    EXPECT_EQ(prefs.lastAnnounceId(), 3);  // remembered before it is shown
  });
  EXPECT_TRUE(showAnnouncement(t, prefs, hud, icon));
  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // same identifier
  applyConfigObject(t, {{"announceId", 2}});
  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // an older one never comes back
}

}  // namespace
}  // namespace tarry::settings
