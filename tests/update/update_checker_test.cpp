#include "update/update_checker.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_alerts.h"
#include "platform/sim/sim_http.h"
#include "platform/sim/sim_main_loop.h"
#include "support/recording_hud.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

namespace tarry::update {
namespace {

TEST(ReleaseFeed, AcceptsOnlyCompleteHttpsFeeds) {
  const auto full = parseRelease(
      R"({"version":"1.4.2","url":"https://example.org/t.tar.gz","sha256":"ab","notes":"Fixes.","extra":1})");
  ASSERT_TRUE(full);
  EXPECT_EQ(*full, (Release{"1.4.2", "https://example.org/t.tar.gz", "ab", "Fixes."}));
  // Notes of another type read as none.
  EXPECT_EQ(parseRelease(R"({"version":"1","url":"https://h:8443/a?b#c","sha256":"","notes":5})")->notes, "");

  for (const char* bad :
       {R"({"version":"1.5","url":"http://example.org/t.tar.gz","sha256":"ab"})",  // plain http
        R"({"version":"1.5","url":"HTTPS://example.org/t","sha256":"ab"})",        // not exactly "https"
        R"({"version":"1.5","url":"example.org/t","sha256":"ab"})",                // no scheme
        R"({"version":"1.5","url":"https:///t","sha256":"ab"})",                   // no host
        R"({"version":"1.5","url":"https://exa mple.org/","sha256":"ab"})",        // not a URL
        R"({"version":1.5,"url":"https://example.org/t","sha256":"ab"})",          // version not a string
        R"({"url":"https://example.org/t","sha256":"ab"})",                        // no version
        R"({"version":"1.5","url":"https://example.org/t"})",                      // no sha256
        R"(["version","1.5"])", "not json", ""}) {
    EXPECT_FALSE(parseRelease(bad)) << bad;
  }
}

TEST(ReleaseFeed, ComparesVersionsByNumberedPieces) {
  EXPECT_TRUE(isNewer("1.10", "1.9"));
  EXPECT_FALSE(isNewer("1.9", "1.10"));
  EXPECT_FALSE(isNewer("1.2.0", "1.2"));
  EXPECT_FALSE(isNewer("1.2", "1.2.0"));
  EXPECT_TRUE(isNewer("1.2.1", "1.2"));
  // "2b" is not a number: 1.2b compares as 1.0.
  EXPECT_FALSE(isNewer("1.2b", "1.1"));
  EXPECT_TRUE(isNewer("1.1", "1.2b"));
  EXPECT_FALSE(isNewer("1..2", "1.2"));  // empty pieces are dropped
  EXPECT_TRUE(isNewer("99999999999999999999999", "18446744073709551614"));
}

class UpdateCheckTest : public ::testing::Test {
 protected:
  UpdateCheckTest() {
    checker.install = [this](const Release& r) { installed.push_back(r.version); };
  }

  /// Runs a check answered by `body` (status 200) or by a transport error.
  void checkWith(bool manual, const std::string& body, const std::string& error = "") {
    checker.check(manual);
    platform::HttpResponse response;
    response.received = error.empty();
    response.status = 200;
    response.body = body;
    response.error = error;
    ASSERT_TRUE(http.respond(response));
    loop.runDue();
  }

  platform::sim::SimMainLoop loop{100.0, 1'794'691'122.0};
  platform::sim::SimHttp http;
  platform::sim::SimAlerts alerts;
  platform::sim::MemoryDefaultsStore store;
  settings::Tunables tunables;
  test_support::RecordingHud hud;
  std::map<std::string, std::int64_t> counts;
  std::vector<std::string> lines;
  std::vector<std::string> installed;
  UpdateChecker checker{{loop,
                         http,
                         alerts,
                         store,
                         tunables,
                         hud,
                         [this](std::string_view name, std::int64_t n) { counts[std::string(name)] += n; },
                         [this](std::string line) { lines.push_back(std::move(line)); },
                         "https://tarry.example",
                         "1.9",
                         {}}};
};

TEST_F(UpdateCheckTest, RequestsTheFeedWithItsHeadersAndTimeout) {
  tunables.setNumber(settings::T::networkTimeoutSec, 7);
  checker.check(false);
  ASSERT_EQ(http.requests.size(), 1U);
  const auto& request = http.requests[0];
  EXPECT_EQ(request.url, "https://tarry.example/dl/tarry/latest.json");
  EXPECT_EQ(request.headers, (decltype(request.headers){{"User-Agent", "Tarry/1.9"}}));
  EXPECT_EQ(request.cachePolicy, platform::CachePolicy::ignoreLocalCache);
  EXPECT_EQ(request.timeoutSec, 7);
}

TEST_F(UpdateCheckTest, ManualChecksAlwaysAnswerAutomaticOnesOnlyOffer) {
  checkWith(false, R"({"version":"1.9.0","url":"https://h/t","sha256":"x"})");
  checkWith(false, "", "Host tarry.example not found");
  checkWith(false, R"({"version":"2.0","url":"http://h/t","sha256":"x"})");
  EXPECT_TRUE(alerts.shown.empty());
  EXPECT_EQ(counts["update.checkFailed"], 2);
  EXPECT_EQ(lines,
            (std::vector<std::string>{"update check failed: Host tarry.example not found",
                                      "update check failed: The update information could not be read."}));

  checkWith(true, R"({"version":"1.9.0","url":"https://h/t","sha256":"x"})");
  checkWith(true, "", "Connection refused");
  ASSERT_EQ(alerts.shown.size(), 2U);
  EXPECT_EQ(alerts.shown[0].message, "Tarry is up to date");
  EXPECT_EQ(alerts.shown[0].informativeText, "You have the latest version (1.9).");
  EXPECT_EQ(alerts.shown[1].message, "Couldn't check for updates");
  EXPECT_EQ(alerts.shown[1].informativeText, "Try again later.");
  EXPECT_EQ(counts["update.offered"], 0);
}

TEST_F(UpdateCheckTest, TheOfferInstallsOrCountsLater) {
  alerts.answers = {1, 0};
  checkWith(false, R"({"version":"1.10","url":"https://h/t","sha256":"x"})");
  loop.advance(tunables.real(settings::T::quietMomentDelaySec));
  ASSERT_EQ(alerts.shown.size(), 1U);
  EXPECT_EQ(alerts.shown[0].message, "Tarry 1.10 is available");
  EXPECT_EQ(alerts.shown[0].informativeText, "You have 1.9.");
  EXPECT_EQ(alerts.shown[0].buttons, (std::vector<std::string>{"Install and Restart", "Later"}));
  EXPECT_EQ(counts["update.later"], 1);
  EXPECT_TRUE(installed.empty());

  // Automatic checks do not ask again within the cooldown; a manual one does.
  loop.advance(23 * 3600);
  checkWith(false, R"({"version":"1.10","url":"https://h/t","sha256":"x"})");
  EXPECT_EQ(alerts.shown.size(), 1U);
  checkWith(true, R"({"version":"1.10","url":"https://h/t","sha256":"x","notes":"Faster."})");
  ASSERT_EQ(alerts.shown.size(), 2U);
  EXPECT_EQ(alerts.shown[1].informativeText, "You have 1.9.\n\nFaster.");
  EXPECT_EQ(installed, std::vector<std::string>{"1.10"});
  EXPECT_EQ(counts["update.offered"], 2);
  EXPECT_EQ(counts["update.later"], 1);
  EXPECT_EQ(lines.back(), "update available 1.10");
}

TEST_F(UpdateCheckTest, NudgesEveryFewBlocksWithCooldownAndPerVersionCap) {
  tunables.setNumber(settings::T::updateNudgeBlocks, 2);
  tunables.setNumber(settings::T::updateNudgeCooldownHours, 1);
  tunables.setNumber(settings::T::updateNudgeMaxPerVersion, 2);
  checker.noteBlockedQuit();
  checker.noteBlockedQuit();
  EXPECT_TRUE(hud.flashes.empty());  // nothing newer known yet

  checkWith(false, R"({"version":"2.0","url":"https://h/t","sha256":"x"})");
  checker.noteBlockedQuit();
  EXPECT_TRUE(hud.flashes.empty());
  checker.noteBlockedQuit();
  ASSERT_EQ(hud.flashes.size(), 1U);
  EXPECT_EQ(hud.flashes[0], "Update available. Check Settings → General.");
  EXPECT_EQ(hud.flashSeconds[0], 3.5);

  checker.noteBlockedQuit();
  checker.noteBlockedQuit();
  EXPECT_EQ(hud.flashes.size(), 1U);  // within the cooldown
  loop.advance(3601);
  checker.noteBlockedQuit();
  EXPECT_EQ(hud.flashes.size(), 2U);
  loop.advance(3601);
  checker.noteBlockedQuit();
  checker.noteBlockedQuit();
  EXPECT_EQ(hud.flashes.size(), 2U);  // two per version

  loop.advance(24 * 3600);
  checkWith(false, R"({"version":"2.1","url":"https://h/t","sha256":"x"})");
  checker.noteBlockedQuit();
  checker.noteBlockedQuit();
  EXPECT_EQ(hud.flashes.size(), 3U);  // a new version starts a new count
}

TEST_F(UpdateCheckTest, AnAutomaticOfferWaitsForAQuietMomentAManualOneDoesNot) {
  bool busy = true;
  checker.busy = [&] { return busy; };
  tunables.setNumber(settings::T::quietMomentDelaySec, 2);
  checkWith(false, R"({"version":"2.0","url":"https://h/t","sha256":"x"})");
  loop.advance(60);
  EXPECT_TRUE(alerts.shown.empty());  // a hold all along
  EXPECT_EQ(counts["update.offered"], 0);

  // Quiet, then busy again within the delay: the delay starts over once it is quiet again.
  busy = false;
  loop.advance(1.5);
  busy = true;
  loop.advance(0.5);
  busy = false;
  loop.advance(1.9);
  EXPECT_TRUE(alerts.shown.empty());
  loop.advance(0.5);  // it looks every quarter second
  ASSERT_EQ(alerts.shown.size(), 1U);
  EXPECT_EQ(alerts.shown[0].message, "Tarry 2.0 is available");
  EXPECT_EQ(counts["update.offered"], 1);
  loop.advance(60);
  EXPECT_EQ(alerts.shown.size(), 1U);  // once

  // A manual check answers mid-hold, and the automatic offer waiting then is dropped.
  store.remove("updateAskLast");
  busy = true;
  checkWith(false, R"({"version":"2.0","url":"https://h/t","sha256":"x"})");
  checkWith(true, R"({"version":"2.0","url":"https://h/t","sha256":"x"})");
  ASSERT_EQ(alerts.shown.size(), 2U);
  busy = false;
  loop.advance(60);
  EXPECT_EQ(alerts.shown.size(), 2U);
}

TEST_F(UpdateCheckTest, AFailedOrSkippedPrefetchIsRetriedWhileItsReleaseIsNewestAndNotInstalling) {
  std::vector<std::pair<std::string, UpdateChecker::PrefetchDone>> prefetches;
  bool metered = true;
  checker.prefetch = [&](const Release& r, UpdateChecker::PrefetchDone done) {
    prefetches.emplace_back(r.version, std::move(done));
  };
  checker.metered = [&] { return metered; };
  tunables.setNumber(settings::T::updatePrefetchDelaySec, 30);
  tunables.setNumber(settings::T::updatePrefetchAvoidMetered, 1);
  tunables.setNumber(settings::T::updateRetryMinutes, 10);
  tunables.setNumber(settings::T::quietMomentDelaySec, 0);
  const std::string v20 = R"({"version":"2.0","url":"https://h/t","sha256":"x"})";
  checkWith(false, v20);
  loop.advance(29);
  EXPECT_TRUE(prefetches.empty());
  loop.advance(2);
  EXPECT_TRUE(prefetches.empty());
  EXPECT_EQ(lines.back(), "update prefetch skipped: metered network; trying again in 10 minutes");

  // The metered network is gone by the retry; that prefetch fails, and the next one is due a
  // retry period later, not sooner, even when the same release is found again meanwhile.
  metered = false;
  loop.advance(600);
  ASSERT_EQ(prefetches.size(), 1U);
  prefetches[0].second(false);
  EXPECT_EQ(lines.back(), "update prefetch 2.0 failed; trying again in 10 minutes");
  checkWith(true, v20);
  loop.advance(599);
  EXPECT_EQ(prefetches.size(), 1U);
  loop.advance(2);
  ASSERT_EQ(prefetches.size(), 2U);
  EXPECT_EQ(prefetches[1].first, "2.0");

  // A newer release takes over: the old attempt's failure is not retried.
  checkWith(true, R"({"version":"2.1","url":"https://h/t","sha256":"x"})");
  prefetches[1].second(false);
  loop.advance(31);
  ASSERT_EQ(prefetches.size(), 3U);
  EXPECT_EQ(prefetches[2].first, "2.1");
  loop.advance(3600);
  EXPECT_EQ(prefetches.size(), 3U);  // still under way: no second attempt beside it

  // Once the user chose to install, a failed prefetch is not tried again; nor a verified one.
  alerts.answers = {0};
  checkWith(true, R"({"version":"2.1","url":"https://h/t","sha256":"x"})");
  EXPECT_EQ(installed, std::vector<std::string>{"2.1"});
  prefetches[2].second(false);
  loop.advance(24 * 3600);
  EXPECT_EQ(prefetches.size(), 3U);
}

}  // namespace
}  // namespace tarry::update
