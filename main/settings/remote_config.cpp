#include "settings/remote_config.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <exception>
#include <optional>
#include <utility>

namespace tarry::settings {
namespace {

/// A JSON number as a double; true and false count as 1 and 0. Nothing for any other type.
std::optional<double> numberOf(const nlohmann::json& value) {
  if (value.is_boolean()) return value.get<bool>() ? 1.0 : 0.0;
  if (value.is_number()) return value.get<double>();
  return std::nullopt;
}

double clampReal(double v, const TunableRow& row) {
  if (!std::isfinite(v)) return row.lower;
  return std::clamp(v, row.lower, row.upper);
}

void applyOne(Tunables& tunables, T t, const TunableRow& row, const nlohmann::json& value) {
  if (row.kind == TunableKind::string) {
    if (!value.is_string()) return;
    const auto& text = value.get_ref<const std::string&>();
    if (text.empty() && row.emptyTextIgnored) return;
    tunables.setText(t, firstCharacters(text, row.maxChars));
    return;
  }
  const auto number = numberOf(value);
  if (!number) return;
  switch (row.kind) {
    case TunableKind::real:
      tunables.setNumber(t, clampReal(*number, row));
      break;
    case TunableKind::integer:
      tunables.setNumber(t, std::trunc(clampReal(*number, row)));
      break;
    case TunableKind::boolean:
      tunables.setNumber(t, *number >= 1 ? 1.0 : 0.0);
      break;
    case TunableKind::string:
      break;
  }
}

std::string shortest(double v) {
  std::array<char, 64> buffer{};
  const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), v);
  if (ec != std::errc()) return "0";
  return std::string(buffer.data(), end);
}

}  // namespace

std::string firstCharacters(std::string_view utf8, std::size_t maxChars) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    // NOTE: a character starts at every byte that is not a UTF-8 continuation byte (10xxxxxx).
    if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) {
      if (count == maxChars) return std::string(utf8.substr(0, i));
      ++count;
    }
  }
  return std::string(utf8);
}

bool applyRemoteConfig(Tunables& tunables, const platform::HttpResponse& response) {
  if (!response.received || response.status != 200 || response.body.empty()) return false;
  nlohmann::json document;
  try {
    document = nlohmann::json::parse(response.body, nullptr, /*allow_exceptions=*/false);
  } catch (const std::exception&) {
    return false;  // out of memory on a hostile document: keep what is in force
  }
  if (!document.is_object()) return false;  // also a document that did not parse
  applyConfigObject(tunables, document);
  return true;
}

void applyConfigObject(Tunables& tunables, const nlohmann::json& object) {
  if (!object.is_object()) return;
  for (std::size_t i = 0; i < kTunableCount; ++i) {
    const TunableRow& row = kTunableRows[i];
    const auto it = object.find(std::string(row.key));
    if (it == object.end()) continue;
    applyOne(tunables, static_cast<T>(i), row, *it);
  }
}

platform::HttpRequest remoteConfigRequest(const std::string& base, const Tunables& tunables) {
  platform::HttpRequest request;
  request.url = base + std::string(kRemoteConfigPath);
  request.headers = {{"User-Agent", std::string("Tarry/") + TARRY_VERSION}};
  request.cachePolicy = platform::CachePolicy::ignoreLocalCache;
  request.timeoutSec = tunables.real(T::networkTimeoutSec);
  request.maxBytes = kRemoteConfigMaxBytes;
  return request;
}

void fetchRemoteConfig(platform::Http& http, Tunables& tunables, const std::string& base,
                       RemoteConfigDone done) {
  if (base.empty()) {
    platform::HttpResponse none;
    none.error = "no server configured";
    if (done) done(none, false);
    return;
  }
  http.get(remoteConfigRequest(base, tunables),
           [&tunables, done = std::move(done)](const platform::HttpResponse& r) {
             const bool applied = applyRemoteConfig(tunables, r);
             if (done) done(r, applied);
           });
}

RemoteConfig::RemoteConfig(Tunables& tunables, platform::Http& http, platform::MainLoop& loop,
                           std::string base)
    : tunables_(tunables), http_(http), loop_(loop), base_(std::move(base)) {}

void RemoteConfig::setAppliedHook(std::function<void()> hook) { shared_->appliedHook = std::move(hook); }

void RemoteConfig::fetch(std::function<void(bool applied)> done) {
  // NOTE: the networking thread only forwards a weak handle; the hook is looked up on the main
  // thread, so a RemoteConfig destroyed meanwhile runs nothing.
  std::weak_ptr<Shared> weak = shared_;
  platform::MainLoop& loop = loop_;
  fetchRemoteConfig(http_, tunables_, base_,
                    [weak, &loop, done = std::move(done)](const platform::HttpResponse&, bool applied) {
                      if (applied) {
                        loop.dispatchMain([weak] {
                          if (const auto shared = weak.lock(); shared && shared->appliedHook)
                            shared->appliedHook();
                        });
                      }
                      if (done) done(applied);
                    });
}

std::string remoteConfigDemoLine(const Tunables& tunables) {
  return "hudCornerRadius=" + shortest(tunables.real(T::hudCornerRadius)) +
         " hudShadow=" + (tunables.flag(T::hudShadow) ? "true" : "false") +
         " meterGreenThreshold=" + shortest(tunables.real(T::meterGreenThreshold)) +
         " meterYellowThreshold=" + shortest(tunables.real(T::meterYellowThreshold)) +
         " bannerFillAlpha=" + shortest(tunables.real(T::bannerFillAlpha)) +
         " hudVerticalOffset=" + shortest(tunables.real(T::hudVerticalOffset));
}

}  // namespace tarry::settings
