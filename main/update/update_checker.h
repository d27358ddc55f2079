#pragma once

#include "guard/hud_display.h"
#include "platform/alerts.h"
#include "platform/defaults_store.h"
#include "platform/http.h"
#include "platform/main_loop.h"
#include "settings/tunables.h"
#include "update/release.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarry::update {

/// What the update check needs from the rest of the program.
struct UpdateCheckDeps {
  platform::MainLoop& loop;
  platform::Http& http;
  platform::Alerts& alerts;
  platform::DefaultsStore& store;
  const settings::Tunables& tunables;
  guard::HudDisplay& hud;
  /// The counter add ("update.checkFailed", …).
  std::function<void(std::string_view name, std::int64_t amount)> count;
  /// One line to the event log.
  std::function<void(std::string line)> log;
  /// The maker's server ("https://host[:port]"); empty when none is configured.
  std::string serverURL;
  /// The running version ("1.4.2").
  std::string runningVersion;
  /// The program's icon for the nudge banner.
  platform::Icon icon;
};

/// The release feed, the check flow with its alerts, the update nudges and the prefetch.
/// NOTE: main thread only, except the fetch completion, which runs on the networking thread and
/// only parses before it hops to the main queue.
class UpdateChecker final {
 public:
  using FetchDone = std::function<void(std::optional<Release> release, std::optional<std::string> error)>;

  explicit UpdateChecker(UpdateCheckDeps deps) : deps_(std::move(deps)) {}
  UpdateChecker(const UpdateChecker&) = delete;
  UpdateChecker& operator=(const UpdateChecker&) = delete;

  /// GET "/dl/tarry/latest.json"; `done` runs on the networking thread with the release or the
  /// error text.
  void fetch(FetchDone done);
  /// Fetches, then runs the check flow on the main queue: a manual check always answers at once;
  /// an automatic one speaks only when there is something to install, at most once per
  /// `updateAskCooldownHours`, and only in a quiet moment (see `busy`).
  void check(bool manual);
  /// The offer alert; "Install and Restart" hands the release to `install`.
  void offer(const Release& release);
  /// The check flow itself, on the main thread (what `check` runs once the feed is in).
  void finish(bool manual, const std::optional<Release>& release, const std::optional<std::string>& error);

  /// After a blocked quit: shows the update nudge banner every `updateNudgeBlocks` blocked quits
  /// while a newer version is known, at most `updateNudgeMaxPerVersion` times per version and
  /// not within `updateNudgeCooldownHours` of the last one.
  void noteBlockedQuit();

  /// The newest release found newer than the running version, if any.
  [[nodiscard]] const std::optional<Release>& available() const { return available_; }

  /// Starts the download and install of a release (the installer).
  std::function<void(const Release&)> install;
  /// Called with `ok` once on the main thread when a prefetch ends: verified, or not.
  using PrefetchDone = std::function<void(bool ok)>;
  /// Downloads and verifies a release ahead of the offer; empty: no prefetch. A failed prefetch
  /// is tried again every `updateRetryMinutes` while its release is the newest known and no
  /// install has started.
  std::function<void(const Release&, PrefetchDone)> prefetch;
  /// True on a metered (expensive or constrained) network.
  std::function<bool()> metered;
  /// True while the user is in the middle of something the offer must not interrupt (a hold,
  /// the HUD on screen); empty: never. An automatic offer waits until this has been false for
  /// `quietMomentDelaySec`.
  std::function<bool()> busy;

 private:
  void schedulePrefetch(const Release& release, double delaySec);
  void startPrefetch(const Release& release);
  void prefetchFailed(const Release& release, const std::string& why);
  /// A prefetch is for the newest known release only, and only until an install starts.
  [[nodiscard]] bool stillWanted(const Release& release) const;
  void offerWhenQuiet(const Release& release);
  void waitForQuiet();
  void ask(const Release& release);

  UpdateCheckDeps deps_;
  std::optional<Release> available_;
  std::int64_t blocksSinceNudge_ = 0;
  /// The version whose prefetch is waiting, under way or done; completions for another are stale.
  std::string prefetchVersion_;
  platform::Scheduled prefetchTimer_;
  /// Set once "Install and Restart" was chosen: from then on nothing is prefetched.
  bool installStarted_ = false;
  /// The automatic offer waiting for a quiet moment, and since when (uptime) it has been quiet.
  std::optional<Release> waitingOffer_;
  std::optional<double> quietSince_;
  platform::Scheduled quietTimer_;
  /// Completions queued for the main thread do nothing once this object is gone.
  std::shared_ptr<UpdateChecker*> self_ = std::make_shared<UpdateChecker*>(this);
};

}  // namespace tarry::update
