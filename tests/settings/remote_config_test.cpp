#include "settings/remote_config.h"

#include "guard/hud_display.h"
#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_http.h"
#include "platform/sim/sim_main_loop.h"
#include "settings/announcement.h"
#include "settings/preferences.h"
#include "settings/server_url.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

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
      "holdTickHz": 500, "busySampleMs": 5, "reportsKept": 2.9, "appSetCap": -3,
      "hudShadow": 0.5, "updatePrefetch": 0, "telemetryPaused": true, "logUploadPaused": 7,
      "pingMinutes": true, "permissionPollSec": 1e300, "hudVerticalOffset": -151,
      "recentsMax": 18446744073709551616, "finishThreshold": 0.9951, "unknownKey": 3})")));
  EXPECT_EQ(t.real(T::holdTickHz), 120);
  EXPECT_EQ(t.real(T::busySampleMs), 100);
  EXPECT_EQ(t.integer(T::reportsKept), 2);
  EXPECT_EQ(t.real(T::reportsKept), 2);  // truncated when applied, not only when read
  EXPECT_EQ(t.integer(T::appSetCap), 100);
  EXPECT_FALSE(t.flag(T::hudShadow));
  EXPECT_FALSE(t.flag(T::updatePrefetch));
  EXPECT_TRUE(t.flag(T::telemetryPaused));
  EXPECT_EQ(t.real(T::logUploadPaused), 1);
  EXPECT_EQ(t.real(T::pingMinutes), 1);
  EXPECT_EQ(t.real(T::permissionPollSec), 1e300);  // no upper bound
  EXPECT_EQ(t.real(T::hudVerticalOffset), -150);
  EXPECT_EQ(t.integer(T::recentsMax), 50);
  EXPECT_EQ(t.real(T::finishThreshold), 0.9951);

  ASSERT_TRUE(applyRemoteConfig(t, ok(R"({"holdTickHz": 5, "hudShadow": true, "reportsKept": 20.99})")));
  EXPECT_EQ(t.real(T::holdTickHz), 20);
  EXPECT_TRUE(t.flag(T::hudShadow));
  EXPECT_EQ(t.integer(T::reportsKept), 20);
}

TEST(RemoteConfigApplyTest, WrongTypesAndPartialDocumentsChangeOnlyWhatTheyValidlyName) {
  Tunables t;
  ASSERT_TRUE(applyRemoteConfig(t, ok(R"({"holdTickHz": 90, "announceText": "hello"})")));
  ASSERT_TRUE(applyRemoteConfig(t, ok(R"({
      "holdTickHz": "fast", "maxHoldSec": null, "hudShadow": "false", "undoWindowSec": [60],
      "announceText": 12, "neverQuitExtra": {"a": 1}, "carefulMultiplier": 3})")));
  EXPECT_EQ(t.real(T::holdTickHz), 90);  // the first document's value survives
  EXPECT_EQ(t.text(T::announceText), "hello");
  EXPECT_EQ(t.real(T::maxHoldSec), 14);
  EXPECT_TRUE(t.flag(T::hudShadow));
  EXPECT_EQ(t.real(T::undoWindowSec), 30);
  EXPECT_EQ(t.text(T::neverQuitExtra), "");
  EXPECT_EQ(t.real(T::carefulMultiplier), 3);
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
      ok("42"),
      ok("null"),
      ok(R"({"holdTickHz": 30,)"),  // cut short
      ok(R"({"holdTickHz": 30} trailing)"),
      ok(R"({"holdTickHz": NaN})"),
      ok(R"({"holdTickHz": 30, "x": 1e999})"),  // the parser refuses numbers out of range
      ok("{\"announceText\": \"\xff\xfe\"}"),   // not UTF-8
      ok(repeat("[", 100000)),
  };
  for (const auto& r : rejected) {
    Tunables t;
    EXPECT_FALSE(applyRemoteConfig(t, r)) << r.status << " " << r.body.substr(0, 40);
    EXPECT_EQ(t.real(T::holdTickHz), 60);
    EXPECT_EQ(t.text(T::announceText), "");
  }
}

TEST(RemoteConfigApplyTest, NonFiniteNumbersTakeTheLowerBound) {
  Tunables t;
  for (const double v : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity()}) {
    applyConfigObject(t, {{"holdTickHz", v}, {"permissionPollSec", v}, {"recentsMax", v}, {"hudShadow", v}});
    EXPECT_EQ(t.real(T::holdTickHz), 20) << v;
    EXPECT_EQ(t.real(T::permissionPollSec), 0.1) << v;
    EXPECT_EQ(t.integer(T::recentsMax), 1) << v;
    EXPECT_EQ(t.flag(T::hudShadow), v > 0) << v;
  }
}

TEST(RemoteConfigApplyTest, TextsKeepTheirFirstCharactersNotBytes) {
  Tunables t;
  const std::string accented = repeat("é", 250);   // 2 bytes each
  const std::string emoji = repeat("🙂", 130);   // 4 bytes each
  const std::string huge = repeat("ab,", 400000);  // 1.2 MB
  const nlohmann::json doc = {{"announceText", accented},
                              {"updateNudgeText", emoji},
                              {"neverQuitExtra", huge},
                              {"ramSaverSkipExtra", "org.a,org.b"}};
  ASSERT_TRUE(applyRemoteConfig(t, ok(doc.dump())));
  EXPECT_EQ(t.text(T::announceText), repeat("é", 200));
  EXPECT_EQ(t.text(T::updateNudgeText), repeat("🙂", 120));
  EXPECT_EQ(t.text(T::neverQuitExtra), huge.substr(0, 500));
  EXPECT_EQ(t.text(T::ramSaverSkipExtra), "org.a,org.b");

  // An empty nudge text is ignored; an empty announcement text clears the announcement.
  ASSERT_TRUE(applyRemoteConfig(t, ok(R"({"updateNudgeText": "", "announceText": ""})")));
  EXPECT_EQ(t.text(T::updateNudgeText), repeat("🙂", 120));
  EXPECT_EQ(t.text(T::announceText), "");

  EXPECT_EQ(firstCharacters("a\xcc\x81z", 2), "a\xcc\x81");  // a combining accent is a character
  EXPECT_EQ(firstCharacters("", 3), "");
  EXPECT_EQ(firstCharacters("abc", 0), "");
}

TEST(RemoteConfigApplyTest, DemoLineUsesShortestRoundTripNumbers) {
  Tunables t;
  EXPECT_EQ(remoteConfigDemoLine(t),
            "hudCornerRadius=18 hudShadow=true meterGreenThreshold=0.5 meterYellowThreshold=0.75 "
            "bannerFillAlpha=0.18 hudVerticalOffset=0");
  applyConfigObject(t, {{"hudCornerRadius", 0.1 + 0.2},
                        {"hudShadow", false},
                        {"meterGreenThreshold", 1},
                        {"meterYellowThreshold", 0.05},
                        {"bannerFillAlpha", 1e-7},
                        {"hudVerticalOffset", -12.5}});
  EXPECT_EQ(remoteConfigDemoLine(t),
            "hudCornerRadius=0.30000000000000004 hudShadow=false meterGreenThreshold=0.95 "
            "meterYellowThreshold=0.05 bannerFillAlpha=1e-07 hudVerticalOffset=-12.5");
}

TEST(ServerUrlTest, EnvironmentWinsWhenSetAndTrailingSlashesGo) {
  EXPECT_EQ(serverBaseURL("http://127.0.0.1:8080/"), "http://127.0.0.1:8080");
  EXPECT_EQ(serverBaseURL("https://example.org"), "https://example.org");
  EXPECT_EQ(serverBaseURL(""), serverBaseURL(nullptr));
  EXPECT_EQ(serverBaseURL(nullptr), TARRY_SERVER_URL);
}

class RemoteConfigFetchTest : public ::testing::Test {
 protected:
  Tunables tunables;
  platform::sim::SimHttp http;
  platform::sim::SimMainLoop loop;
};

TEST_F(RemoteConfigFetchTest, RequestCarriesPathAgentCachePolicyAndCurrentTimeout) {
  RemoteConfig config(tunables, http, loop, "http://127.0.0.1:9");
  config.fetch(nullptr);
  ASSERT_EQ(http.requests.size(), 1u);
  const auto& r = http.requests[0];
  EXPECT_EQ(r.url, "http://127.0.0.1:9/api/tarry-config");
  EXPECT_EQ(r.headers, (decltype(r.headers){{"User-Agent", std::string("Tarry/") + TARRY_VERSION}}));
  EXPECT_EQ(r.cachePolicy, platform::CachePolicy::ignoreLocalCache);
  EXPECT_EQ(r.timeoutSec, 10);

  http.respond(ok(R"({"networkTimeoutSec": 99})"));
  config.fetch(nullptr);
  EXPECT_EQ(http.requests.back().timeoutSec, 60);
}

TEST_F(RemoteConfigFetchTest, HookRunsOnTheMainQueueOnlyAfterASuccessfulApply) {
  RemoteConfig config(tunables, http, loop, "http://127.0.0.1:9");
  int hookRuns = 0;
  std::vector<std::string> order;
  config.setAppliedHook([&] {
    ++hookRuns;
    order.push_back("hook");
  });
  config.fetch([&](bool applied) {
    order.push_back(std::string("done ") + (applied ? "applied" : "unchanged") + " " +
                    std::to_string(static_cast<int>(tunables.real(T::ramSaverCheckMin))));
  });
  http.respond(ok(R"({"ramSaverCheckMin": 10})"));
  EXPECT_EQ(hookRuns, 0);  // not on the networking thread
  loop.runDue();
  EXPECT_EQ(hookRuns, 1);
  EXPECT_EQ(order, (std::vector<std::string>{"done applied 10", "hook"}));

  order.clear();
  config.fetch([&](bool applied) { order.push_back(applied ? "applied" : "unchanged"); });
  http.respond(HttpResponse{true, 404, R"({"ramSaverCheckMin": 20})", ""});
  loop.runDue();
  EXPECT_EQ(hookRuns, 1);
  EXPECT_EQ(order, (std::vector<std::string>{"unchanged"}));
  EXPECT_EQ(tunables.real(T::ramSaverCheckMin), 10);
}

TEST_F(RemoteConfigFetchTest, NoServerOrAGoneOwnerChangeNothingButStillComplete) {
  bool completed = false;
  fetchRemoteConfig(http, tunables, "", [&](const HttpResponse& r, bool applied) {
    completed = true;
    EXPECT_FALSE(r.received);
    EXPECT_FALSE(r.error.empty());
    EXPECT_FALSE(applied);
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
  EXPECT_EQ(tunables.real(T::holdTickHz), 30);
}

class MockHud final : public guard::HudDisplay {
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
  MockHud hud;
  const platform::Icon icon{"tarry", 0, 0, nullptr};

  EXPECT_CALL(hud, flash).Times(0);
  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // none configured
  applyConfigObject(t, {{"announceId", 3}, {"announceText", ""}});
  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // no text
  ::testing::Mock::VerifyAndClearExpectations(&hud);

  applyConfigObject(t, {{"announceText", "New: per-app rules"}, {"announceSec", 6}});
  EXPECT_CALL(hud, flash("New: per-app rules", icon, 6.0)).WillOnce([&] {
    EXPECT_EQ(prefs.lastAnnounceId(), 3);  // remembered before it is shown
  });
  EXPECT_TRUE(showAnnouncement(t, prefs, hud, icon));
  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // same identifier
  applyConfigObject(t, {{"announceId", 2}});
  EXPECT_FALSE(showAnnouncement(t, prefs, hud, icon));  // an older one never comes back
  EXPECT_EQ(prefs.lastAnnounceId(), 3);
}

}  // namespace
}  // namespace tarry::settings
