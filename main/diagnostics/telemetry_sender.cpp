#include "diagnostics/telemetry_sender.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <utility>

namespace tarry::diagnostics {
namespace {

using settings::T;

constexpr const char* kInstallIDKey = "installID";
/// What the server says back to an event is a status; its body is never read.
constexpr std::uint64_t kAnswerMaxBytes = 64 * 1024;

/// A random version-4 UUID ("0f8fad5b-d9cb-469f-a165-70867728950e").
std::string randomUUID() {
  std::random_device device;
  std::array<unsigned char, 16> bytes{};
  for (auto& b : bytes) b = static_cast<unsigned char>(device() & 0xff);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
  std::string out;
  std::array<char, 3> hex{};
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    std::snprintf(hex.data(), hex.size(), "%02x", bytes[i]);
    out += hex.data();
  }
  return out;
}

}  // namespace

TelemetrySender::TelemetrySender(Deps deps) : deps_(std::move(deps)) {}

TelemetrySender::~TelemetrySender() = default;

bool TelemetrySender::allowed() const {
  const auto consent = deps_.prefs.store().get("consentVersion");
  const bool agreed = consent && consent->is_number() && consent->get<double>() >= 1;
  return agreed && !deps_.serverBase.empty() && !deps_.tunables.flag(T::telemetryPaused);
}

std::string TelemetrySender::installID() {
  platform::DefaultsStore& store = deps_.prefs.store();
  if (const auto stored = store.get(kInstallIDKey);
      stored && stored->is_string() && !stored->get<std::string>().empty()) {
    return stored->get<std::string>();
  }
  std::string id = randomUUID();
  store.set(kInstallIDKey, id);
  return id;
}

nlohmann::json TelemetrySender::eventObject(const std::string& event, const nlohmann::json& payload) {
  nlohmann::json object = nlohmann::json::object();
  object["event"] = event;
  object["installID"] = installID();
  object["version"] = deps_.version;
  object["network"] = deps_.network.current().kind;
  object["snapshot"] = snapshot_ ? snapshot_() : nlohmann::json::object();
  if (!payload.is_null()) object["payload"] = payload;
  return object;
}

bool TelemetrySender::send(const std::string& event, const nlohmann::json& payload,
                           std::function<void(bool accepted)> done) {
  if (!allowed()) return false;
  std::string body;
  try {
    body = eventObject(event, payload).dump();
  } catch (const nlohmann::json::exception&) {
    return false;  // text that is not UTF-8 in a payload: the event is dropped
  }
  platform::HttpRequest request;
  request.url = deps_.serverBase + std::string(kTelemetryPath);
  request.headers = {{"Content-Type", "application/json"}};
  request.cachePolicy = platform::CachePolicy::ignoreLocalCache;
  request.timeoutSec = deps_.tunables.real(T::networkTimeoutSec);
  request.maxBytes = kAnswerMaxBytes;
  request.body = std::move(body);
  {
    const std::lock_guard lock(inFlight_->mutex);
    ++inFlight_->count;
  }
  // NOTE: the completion runs on the networking thread and may outlive this sender; it holds
  // only the shared counter.
  deps_.http.post(request,
                  [inFlight = inFlight_, done = std::move(done)](const platform::HttpResponse& response) {
                    if (done) {
                      constexpr int kOkFirst = 200;
                      constexpr int kOkLast = 299;
                      done(response.received && response.status >= kOkFirst && response.status <= kOkLast);
                    }
                    const std::lock_guard lock(inFlight->mutex);
                    if (inFlight->count > 0) --inFlight->count;
                    if (inFlight->count == 0) inFlight->idle.notify_all();
                  });
  return true;
}

bool TelemetrySender::waitForSends(double seconds) {
  std::unique_lock lock(inFlight_->mutex);
  // NOTE: a bounded wait at exit only; no logic depends on the time it took.
  return inFlight_->idle.wait_for(lock, std::chrono::duration<double>(std::max(seconds, 0.0)),
                                  [this] { return inFlight_->count == 0; });
}

void TelemetrySender::recordAppSeen(const std::string& bundleID, std::string_view kind) {
  if (bundleID.empty() || (kind != "attempted" && kind != "quit")) return;
  const std::string key = "appset." + std::string(kind);
  const std::string hash = deps_.digest.sha256Hex(bundleID);
  if (hash.empty()) return;
  platform::DefaultsStore& store = deps_.prefs.store();
  auto set = store.get(key).value_or(nlohmann::json::array());
  if (!set.is_array()) set = nlohmann::json::array();
  if (std::find(set.begin(), set.end(), hash) != set.end()) return;
  if (static_cast<std::int64_t>(set.size()) >= deps_.tunables.integer(T::appSetCap)) return;
  set.push_back(hash);
  store.set(key, std::move(set));
}

std::string TelemetrySender::category(const platform::RunningApp& app) {
  return appCategory(deps_.workspace, app);
}

}  // namespace tarry::diagnostics
