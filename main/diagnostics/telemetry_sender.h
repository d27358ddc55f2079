#pragma once

#include "diagnostics/app_telemetry.h"
#include "platform/digest.h"
#include "platform/http.h"
#include "platform/network_status.h"
#include "platform/workspace.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace tarry::diagnostics {

/// Path of the usage-event endpoint on the maker's server.
inline constexpr std::string_view kTelemetryPath = "/api/t";

/// The app's category word for usage events, tested in this order: "finder" (the file manager),
/// "terminal" (a terminal emulator, by the same test careful mode uses), "browser" (a fixed list
/// of common browsers), else "other".
[[nodiscard]] std::string appCategory(const platform::Workspace& workspace, const platform::RunningApp& app);

/// The usage-event sender. An event is one JSON object POSTed to "/api/t" on the configured
/// server: {"event", "installID", "version", "network", "snapshot", "payload"}.
/// Nothing is sent before the user agreed (`consentVersion` ≥ 1), without a server, or while the
/// `telemetryPaused` tunable is on. Sending never waits; failures are dropped silently.
/// It also keeps the hashed app sets (`appset.attempted`, `appset.quit`): SHA-256 of each
/// identifier, at most `appSetCap` per set.
class TelemetrySender final : public AppTelemetry {
 public:
  struct Deps {
    platform::Http& http;
    settings::Preferences& prefs;
    const settings::Tunables& tunables;
    const platform::Digest& digest;
    const platform::Workspace& workspace;
    const platform::NetworkStatus& network;
    /// "https://host[:port]" without a trailing slash; empty means no server.
    std::string serverBase;
    std::string version;
  };

  explicit TelemetrySender(Deps deps);
  ~TelemetrySender() override;
  TelemetrySender(const TelemetrySender&) = delete;
  TelemetrySender& operator=(const TelemetrySender&) = delete;

  /// Builds the settings snapshot of this moment (set once at start-up).
  void setSnapshotSource(std::function<nlohmann::json()> source) { snapshot_ = std::move(source); }

  /// True when an event would be sent now.
  [[nodiscard]] bool allowed() const;
  /// Sends `event` with the snapshot and an extra `payload` (may be null). Returns at once; false
  /// when nothing was sent (no consent, no server, paused). `done`, when given, hears on the
  /// networking thread whether the server took it (a 2xx answer); it is not called after false.
  bool send(const std::string& event, const nlohmann::json& payload = nullptr,
            std::function<void(bool accepted)> done = {});
  /// Waits until every send so far has finished, at most `seconds`; true when none is left.
  bool waitForSends(double seconds);
  /// The random identifier of this installation, made and stored on first use.
  [[nodiscard]] std::string installID();

  /// The event object `send` would post (for the demo and tests).
  [[nodiscard]] nlohmann::json eventObject(const std::string& event, const nlohmann::json& payload);

  void recordAppSeen(const std::string& bundleID, std::string_view kind) override;
  [[nodiscard]] std::string category(const platform::RunningApp& app) override;
  void event(const std::string& name) override { send(name); }

 private:
  struct InFlight {
    std::mutex mutex;
    std::condition_variable idle;
    std::size_t count = 0;
  };

  Deps deps_;
  std::function<nlohmann::json()> snapshot_;
  std::shared_ptr<InFlight> inFlight_ = std::make_shared<InFlight>();
};

}  // namespace tarry::diagnostics
