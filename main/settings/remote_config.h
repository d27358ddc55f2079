#pragma once

#include "platform/http.h"
#include "platform/main_loop.h"
#include "settings/tunables.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tarry::settings {

/// Path of the configuration document on the maker's server.
inline constexpr std::string_view kRemoteConfigPath = "/api/tarry-config";
/// The largest configuration document read (the whole table is a few kilobytes).
inline constexpr std::uint64_t kRemoteConfigMaxBytes = 1'000'000;

/// Applies a fetched configuration document to the tunables. Only a 200 response whose body is a
/// JSON object is used; each tunable it names with a value of the right type is set (numbers
/// clamped into bounds, texts cut to their length), everything else is left as it is.
/// Returns true when the document was used.
/// NOTE: safe on any thread; readers may see each value from just before or just after.
bool applyRemoteConfig(Tunables& tunables, const platform::HttpResponse& response);
/// The second half of the above, on a parsed JSON object: a number that is not finite takes the
/// lower bound. (The parser already refuses a document with such a number, such as 1e999.)
void applyConfigObject(Tunables& tunables, const nlohmann::json& object);

/// The first `maxChars` characters (Unicode code points) of UTF-8 text.
[[nodiscard]] std::string firstCharacters(std::string_view utf8, std::size_t maxChars);

/// The GET for the configuration document on the server at `base`.
[[nodiscard]] platform::HttpRequest remoteConfigRequest(const std::string& base, const Tunables& tunables);

/// Called once with the response (an error response when there is no server) and whether the
/// document was applied; runs on the networking thread, or at once on the caller's when there is
/// no server.
using RemoteConfigDone = std::function<void(const platform::HttpResponse& response, bool applied)>;

/// Fetches the configuration document from `base` and applies it, then calls `done`. Returns at
/// once. An empty `base` changes nothing.
/// NOTE: `tunables` must outlive the request; they are process-wide.
void fetchRemoteConfig(platform::Http& http, Tunables& tunables, const std::string& base,
                       RemoteConfigDone done);

/// The program's remote configuration: fetches, applies, and after every successful apply runs
/// its hook on the main thread (timers whose period is a tunable are rebuilt there).
class RemoteConfig final {
 public:
  RemoteConfig(Tunables& tunables, platform::Http& http, platform::MainLoop& loop, std::string base);
  RemoteConfig(const RemoteConfig&) = delete;
  RemoteConfig& operator=(const RemoteConfig&) = delete;

  /// Runs on the main thread after each successful apply.
  void setAppliedHook(std::function<void()> hook);
  /// Starts a fetch; `done` runs afterwards with whether the document was applied, on the
  /// networking thread (hand main-thread work to the loop).
  void fetch(std::function<void(bool applied)> done);

 private:
  struct Shared {
    std::function<void()> appliedHook;
  };

  Tunables& tunables_;
  platform::Http& http_;
  platform::MainLoop& loop_;
  std::string base_;
  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

/// The line `--remote-config-demo` prints: "hudCornerRadius=18 hudShadow=true …", each number in
/// its shortest form that reads back to the same value.
[[nodiscard]] std::string remoteConfigDemoLine(const Tunables& tunables);

}  // namespace tarry::settings
