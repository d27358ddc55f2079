#include "update/update_checker.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace tarry::update {

using settings::T;

namespace {
/// The largest release feed read: four fields and release notes.
constexpr std::uint64_t kFeedMaxBytes = 1'000'000;
}  // namespace

void UpdateChecker::fetch(FetchDone done) {
  if (deps_.serverURL.empty()) {
    done(std::nullopt, std::string("No update server is configured."));
    return;
  }
  platform::HttpRequest request;
  request.url = deps_.serverURL + "/dl/tarry/latest.json";
  request.headers = {{"User-Agent", "Tarry/" + deps_.runningVersion}};
  request.cachePolicy = platform::CachePolicy::ignoreLocalCache;
  request.timeoutSec = deps_.tunables.real(T::networkTimeoutSec);
  request.maxBytes = kFeedMaxBytes;
  deps_.http.get(request, [done = std::move(done)](const platform::HttpResponse& response) {
    if (!response.received) {
      done(std::nullopt, response.error.empty() ? std::string("no response") : response.error);
      return;
    }
    auto release = response.status == 200 ? parseRelease(response.body) : std::nullopt;
    if (!release) {
      done(std::nullopt, std::string(kUnreadableFeed));
      return;
    }
    done(std::move(release), std::nullopt);
  });
}

void UpdateChecker::check(bool manual) {
  std::weak_ptr<UpdateChecker*> weak = self_;
  platform::MainLoop& loop = deps_.loop;
  fetch([weak, &loop, manual](std::optional<Release> release, std::optional<std::string> error) {
    loop.dispatchMain([weak, manual, release = std::move(release), error = std::move(error)] {
      if (const auto self = weak.lock()) (*self)->finish(manual, release, error);
    });
  });
}

void UpdateChecker::finish(bool manual, const std::optional<Release>& release,
                           const std::optional<std::string>& error) {
  if (error || !release) {
    const std::string why = error.value_or(kUnreadableFeed);
    deps_.count("update.checkFailed", 1);
    deps_.log("update check failed: " + why);
    if (manual) deps_.alerts.runModal({"Couldn't check for updates", "Try again later.", {"OK"}});
    return;
  }
  // The user asked: this answer replaces an automatic offer still waiting for a quiet moment.
  if (manual) {
    waitingOffer_.reset();
    quietTimer_.cancel();
  }
  if (!isNewer(release->version, deps_.runningVersion)) {
    if (manual) {
      deps_.alerts.runModal(
          {"Tarry is up to date", "You have the latest version (" + deps_.runningVersion + ").", {"OK"}});
    }
    return;
  }
  if (!available_ || available_->version != release->version) blocksSinceNudge_ = 0;
  available_ = release;
  if (prefetchVersion_ != release->version)
    schedulePrefetch(*release, deps_.tunables.real(T::updatePrefetchDelaySec));
  // An automatic check asks at most once per `updateAskCooldownHours`; the nudges remind
  // meanwhile. A manual check always answers.
  const auto asked = deps_.store.get("updateAskLast");
  if (!manual && asked && asked->is_number() &&
      deps_.loop.now() - asked->get<double>() < deps_.tunables.real(T::updateAskCooldownHours) * 3600) {
    return;
  }
  if (manual) {
    ask(*release);
  } else {
    offerWhenQuiet(*release);
  }
}

void UpdateChecker::ask(const Release& release) {
  deps_.store.set("updateAskLast", deps_.loop.now());
  deps_.count("update.offered", 1);
  deps_.log("update available " + release.version);
  offer(release);
}

void UpdateChecker::offer(const Release& release) {
  std::string informative = "You have " + deps_.runningVersion + ".";
  if (!release.notes.empty()) informative += "\n\n" + release.notes;
  const int answer = deps_.alerts.runModal(
      {"Tarry " + release.version + " is available", informative, {"Install and Restart", "Later"}});
  if (answer == 0) {
    if (install) {
      // The install downloads (or takes over a prefetch) itself: no more prefetch attempts.
      installStarted_ = true;
      prefetchTimer_.cancel();
      install(release);
    }
    return;
  }
  // "Later", and an alert closed without a button, both mean not now.
  deps_.count("update.later", 1);
}

void UpdateChecker::offerWhenQuiet(const Release& release) {
  waitingOffer_ = release;
  quietSince_.reset();
  if (busy && busy()) deps_.log("update " + release.version + ": the offer waits for a quiet moment");
  waitForQuiet();
}

void UpdateChecker::waitForQuiet() {
  // A modal alert takes the keyboard: popping it up mid-hold would swallow the held keys and leave
  // the HUD stuck. So it waits until nothing has gone on for `quietMomentDelaySec`, looking again
  // every quarter second meanwhile.
  constexpr double kLookAgainSec = 0.25;
  // NOTE: timers may fire a hair early in floating point; this keeps them from re-arming for nothing.
  constexpr double kSlackSec = 1e-6;
  quietTimer_.cancel();
  if (!waitingOffer_) return;
  const double now = deps_.loop.uptime();
  if (busy && busy()) {
    quietSince_.reset();
  } else if (!quietSince_) {
    quietSince_ = now;
  }
  const double delay = deps_.tunables.real(T::quietMomentDelaySec);
  if (quietSince_ && now - *quietSince_ >= delay - kSlackSec) {
    const Release release = *waitingOffer_;
    waitingOffer_.reset();
    quietSince_.reset();
    ask(release);
    return;
  }
  const double wait = quietSince_ ? std::min(kLookAgainSec, *quietSince_ + delay - now) : kLookAgainSec;
  std::weak_ptr<UpdateChecker*> weak = self_;
  quietTimer_ = deps_.loop.after(wait, [weak] {
    if (const auto self = weak.lock()) (*self)->waitForQuiet();
  });
}

void UpdateChecker::schedulePrefetch(const Release& release, double delaySec) {
  if (!prefetch || installStarted_ || !deps_.tunables.flag(T::updatePrefetch)) return;
  prefetchVersion_ = release.version;
  std::weak_ptr<UpdateChecker*> weak = self_;
  prefetchTimer_ = deps_.loop.after(delaySec, [weak, release] {
    if (const auto self = weak.lock()) (*self)->startPrefetch(release);
  });
}

void UpdateChecker::startPrefetch(const Release& release) {
  // The switch is read now.
  if (!stillWanted(release) || !deps_.tunables.flag(T::updatePrefetch)) return;
  if (deps_.tunables.flag(T::updatePrefetchAvoidMetered) && metered && metered()) {
    prefetchFailed(release, "update prefetch skipped: metered network");
    return;
  }
  deps_.log("update prefetch " + release.version);
  std::weak_ptr<UpdateChecker*> weak = self_;
  prefetch(release, [weak, release](bool ok) {
    const auto self = weak.lock();
    if (!self || ok) return;
    UpdateChecker& checker = **self;
    if (checker.prefetchVersion_ != release.version) return;  // a newer release took its place
    checker.prefetchFailed(release, "update prefetch " + release.version + " failed");
  });
}

bool UpdateChecker::stillWanted(const Release& release) const {
  return !installStarted_ && available_ && available_->version == release.version;
}

void UpdateChecker::prefetchFailed(const Release& release, const std::string& why) {
  if (!stillWanted(release)) {
    deps_.log(why);
    return;
  }
  const double minutes = deps_.tunables.real(T::updateRetryMinutes);
  char text[32];
  std::snprintf(text, sizeof text, "%g", minutes);
  deps_.log(why + "; trying again in " + text + " minutes");
  schedulePrefetch(release, minutes * 60);
}

void UpdateChecker::noteBlockedQuit() {
  if (!available_ || deps_.tunables.flag(T::updateNudgePaused)) return;
  ++blocksSinceNudge_;
  if (blocksSinceNudge_ < deps_.tunables.integer(T::updateNudgeBlocks)) return;

  const double now = deps_.loop.now();
  const auto last = deps_.store.get("updateNudgeLast");
  if (last && last->is_number() &&
      now - last->get<double>() < deps_.tunables.real(T::updateNudgeCooldownHours) * 3600) {
    return;
  }
  // The count per version lives with the version it counts.
  const auto version = deps_.store.get("updateNudgeVersion");
  const auto shown = deps_.store.get("updateNudgeCount");
  std::int64_t count = 0;
  if (version && version->is_string() && version->get<std::string>() == available_->version && shown &&
      shown->is_number_integer()) {
    count = shown->get<std::int64_t>();
  }
  if (count >= deps_.tunables.integer(T::updateNudgeMaxPerVersion)) return;

  blocksSinceNudge_ = 0;
  deps_.store.set("updateNudgeLast", now);
  deps_.store.set("updateNudgeVersion", available_->version);
  deps_.store.set("updateNudgeCount", count + 1);
  deps_.count("update.nudged", 1);
  deps_.hud.flash(deps_.tunables.text(T::updateNudgeText), deps_.icon,
                  deps_.tunables.real(T::updateNudgeBannerSec));
}

}  // namespace tarry::update
