#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <string_view>

namespace tarry::settings {

enum class TunableKind { real, integer, boolean, string };

inline constexpr double kNoUpperBound = std::numeric_limits<double>::infinity();

// The table of tunables, in its fixed order:
// X(key, kind, default number, lower bound, upper bound, default text, max characters, empty text ignored)
// Booleans carry 0/1; strings carry their default text and keep at most `max characters`.
#define TARRY_TUNABLES(X)                                                                         \
  X(pingMinutes, real, 360, 1, 1440, "", 0, false)                                                \
  X(announceId, integer, 0, 0, 2000000000, "", 0, false)                                          \
  X(announceText, string, 0, 0, 0, "", 200, false)                                                \
  X(announceSec, real, 4, 1, 15, "", 0, false)                                                    \
  X(milestoneFirst, integer, 10, 1, 100000, "", 0, false)                                         \
  X(milestoneSecond, integer, 50, 1, 100000, "", 0, false)                                        \
  X(milestoneStep, integer, 100, 1, 1000000, "", 0, false)                                        \
  X(milestoneBannerSec, real, 1.8, 0.5, 10, "", 0, false)                                         \
  X(pressTwiceWindowSec, real, 1.6, 0.3, 5, "", 0, false)                                         \
  X(protectedFlashSec, real, 1.6, 0.3, 10, "", 0, false)                                          \
  X(carefulMultiplier, real, 1.5, 1, 5, "", 0, false)                                             \
  X(unsavedMultiplier, real, 1.5, 1, 5, "", 0, false)                                             \
  X(busyMultiplier, real, 2, 1, 4, "", 0, false)                                                  \
  X(busyCpuPercent, real, 60, 10, 400, "", 0, false)                                              \
  X(busySampleMs, real, 300, 100, 1000, "", 0, false)                                             \
  X(shortHoldMultiplier, real, 0.5, 0.25, 1, "", 0, false)                                        \
  X(longHoldMultiplier, real, 2, 1, 10, "", 0, false)                                             \
  X(maxHoldSec, real, 14, 7, 60, "", 0, false)                                                    \
  X(finishThreshold, real, 0.99, 0.95, 0.999, "", 0, false)                                       \
  X(holdTickHz, real, 60, 20, 120, "", 0, false)                                                  \
  X(reopenIgnoreSec, real, 2, 0.2, 10, "", 0, false)                                              \
  X(permissionPollSec, real, 0.5, 0.1, kNoUpperBound, "", 0, false)                               \
  X(pollSteadySec, real, 3, 1, 30, "", 0, false)                                                  \
  X(appSetCap, integer, 2000, 100, 20000, "", 0, false)                                           \
  X(logTailBytes, integer, 200000, 10000, 2000000, "", 0, false)                                  \
  X(crashTailBytes, integer, 100000, 10000, 2000000, "", 0, false)                                \
  X(reportsTailBytes, integer, 600000, 10000, 5000000, "", 0, false)                              \
  X(reportsKept, integer, 3, 1, 20, "", 0, false)                                                 \
  X(logMaxBytes, integer, 600000, 100000, 5000000, "", 0, false)                                  \
  X(logUploadPaused, boolean, 0, 0, 1, "", 0, false)                                              \
  X(telemetryPaused, boolean, 0, 0, 1, "", 0, false)                                              \
  X(telemetryWaitSec, real, 2, 0.5, 10, "", 0, false)                                             \
  X(networkTimeoutSec, real, 10, 2, 60, "", 0, false)                                             \
  X(quietMomentDelaySec, real, 1, 0, 30, "", 0, false)                                            \
  X(firstCheckDelaySec, real, 10, 0, 120, "", 0, false)                                           \
  X(updateAskCooldownHours, real, 24, 1, 720, "", 0, false)                                       \
  X(updateBannerSec, real, 1.75, 0.5, 10, "", 0, false)                                           \
  X(updatedBannerSec, real, 2.5, 0.5, 10, "", 0, false)                                           \
  X(updatePrefetch, boolean, 1, 0, 1, "", 0, false)                                               \
  X(updatePrefetchDelaySec, real, 5, 0, 600, "", 0, false)                                        \
  X(updateRetryMinutes, real, 60, 5, 1440, "", 0, false)                                          \
  X(updateMaxDownloadMB, real, 200, 10, 1000, "", 0, false)                                       \
  X(updatePrefetchAvoidMetered, boolean, 0, 0, 1, "", 0, false)                                   \
  X(updateChecksPaused, boolean, 0, 0, 1, "", 0, false)                                           \
  X(updateNudgeBlocks, integer, 3, 1, 50, "", 0, false)                                           \
  X(updateNudgeBannerSec, real, 3.5, 1, 15, "", 0, false)                                         \
  X(updateNudgeCooldownHours, real, 72, 1, 720, "", 0, false)                                     \
  X(updateNudgeMaxPerVersion, integer, 3, 1, 10, "", 0, false)                                    \
  X(updateNudgePaused, boolean, 0, 0, 1, "", 0, false)                                            \
  X(updateNudgeText, string, 0, 0, 0, "Update available. Check Settings → General.", 120, true)   \
  X(milestoneBannerPaused, boolean, 0, 0, 1, "", 0, false)                                        \
  X(updatedBannerPaused, boolean, 0, 0, 1, "", 0, false)                                          \
  X(protectedBannerPaused, boolean, 0, 0, 1, "", 0, false)                                        \
  X(ramSaverBannerPaused, boolean, 0, 0, 1, "", 0, false)                                         \
  X(dockPokeDelaySec, real, 0.1, 0.02, 2, "", 0, false)                                           \
  X(dockCheckSec, real, 0.2, 0.02, 2, "", 0, false)                                               \
  X(dockSettleSec, real, 0.15, 0.02, 2, "", 0, false)                                             \
  X(axTimeoutSec, real, 0.3, 0.05, 3, "", 0, false)                                               \
  X(undoWindowSec, real, 30, 5, 300, "", 0, false)                                                \
  X(undoRestoreTimeoutSec, real, 10, 3, 30, "", 0, false)                                         \
  X(recentsMax, integer, 8, 1, 50, "", 0, false)                                                  \
  X(runSecondsBumpEverySec, real, 60, 1, kNoUpperBound, "", 0, false)                             \
  X(shareLinkCopiedSec, real, 1.5, 0.3, 10, "", 0, false)                                         \
  X(hudCornerRadius, real, 18, 0, 40, "", 0, false)                                               \
  X(hudShadow, boolean, 1, 0, 1, "", 0, false)                                                    \
  X(hudFadeInSec, real, 0.25, 0, 1.5, "", 0, false)                                               \
  X(hudFadeOutSec, real, 0.25, 0, 1.5, "", 0, false)                                              \
  X(hudVerticalOffset, real, 0, -150, 150, "", 0, false)                                          \
  X(hudShowAlpha, real, 1.0, 0.3, 1, "", 0, false)                                                \
  X(meterTrackAlpha, real, 0.14, 0, 1, "", 0, false)                                              \
  X(meterGreenThreshold, real, 0.5, 0.05, 0.95, "", 0, false)                                     \
  X(meterYellowThreshold, real, 0.75, 0.05, 0.98, "", 0, false)                                   \
  X(bannerFillAlpha, real, 0.18, 0, 1, "", 0, false)                                              \
  X(bannerStrokeAlpha, real, 0.7, 0, 1, "", 0, false)                                             \
  X(ramSaverCheckMin, real, 5, 1, 60, "", 0, false)                                               \
  X(ramSaverMaxPerRun, integer, 3, 1, 10, "", 0, false)                                           \
  X(ramSaverSkipExtra, string, 0, 0, 0, "", 500, false)                                           \
  X(neverQuitExtra, string, 0, 0, 0, "", 500, false)

/// Names of the tunables, in table order.
enum class T : std::size_t {
#define TARRY_TUNABLE_ENUM(key, kind, def, lo, hi, text, maxChars, ignoreEmpty) key,
  TARRY_TUNABLES(TARRY_TUNABLE_ENUM)
#undef TARRY_TUNABLE_ENUM
};

/// One row of the table.
struct TunableRow {
  std::string_view key;
  TunableKind kind;
  double defaultNumber;
  double lower;
  double upper;
  std::string_view defaultText;
  std::size_t maxChars;     // strings: characters kept
  bool emptyTextIgnored;    // strings: an empty document value leaves the current text
};

inline constexpr std::array kTunableRows = {
#define TARRY_TUNABLE_ROW(key, kind, def, lo, hi, text, maxChars, ignoreEmpty) \
  TunableRow{#key, TunableKind::kind, def, lo, hi, text, maxChars, ignoreEmpty},
    TARRY_TUNABLES(TARRY_TUNABLE_ROW)
#undef TARRY_TUNABLE_ROW
};

inline constexpr std::size_t kTunableCount = kTunableRows.size();

[[nodiscard]] constexpr const TunableRow& row(T t) { return kTunableRows[static_cast<std::size_t>(t)]; }

/// The process-wide tunables: compiled-in defaults, overridden in memory by the remote
/// configuration, never persisted.
/// NOTE: numbers are single atomic words and strings are replaced whole under a lock, so a reader
/// on the main thread may see the value from just before or just after an apply on another thread.
class Tunables final {
 public:
  Tunables() { reset(); }
  Tunables(const Tunables&) = delete;
  Tunables& operator=(const Tunables&) = delete;

  /// A real, integer or Boolean tunable as a number.
  [[nodiscard]] double real(T t) const { return numbers_[index(t)].load(std::memory_order_relaxed); }
  [[nodiscard]] std::int64_t integer(T t) const { return static_cast<std::int64_t>(real(t)); }
  [[nodiscard]] bool flag(T t) const { return real(t) >= 1; }
  [[nodiscard]] std::string text(T t) const {
    const std::lock_guard lock(textMutex_);
    return texts_[index(t)];
  }

  /// Sets a number as is (the caller has already clamped it).
  void setNumber(T t, double value) { numbers_[index(t)].store(value, std::memory_order_relaxed); }
  void setText(T t, std::string value) {
    const std::lock_guard lock(textMutex_);
    texts_[index(t)] = std::move(value);
  }
  /// Back to the compiled-in defaults.
  void reset() {
    for (std::size_t i = 0; i < kTunableCount; ++i) {
      numbers_[i].store(kTunableRows[i].defaultNumber, std::memory_order_relaxed);
    }
    const std::lock_guard lock(textMutex_);
    for (std::size_t i = 0; i < kTunableCount; ++i) texts_[i] = std::string(kTunableRows[i].defaultText);
  }

 private:
  static constexpr std::size_t index(T t) { return static_cast<std::size_t>(t); }

  std::array<std::atomic<double>, kTunableCount> numbers_{};
  mutable std::mutex textMutex_;
  std::array<std::string, kTunableCount> texts_{};
};

}  // namespace tarry::settings
