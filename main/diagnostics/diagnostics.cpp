#include "diagnostics/diagnostics.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace tarry::diagnostics {
namespace {

constexpr const char* kEvents = "events.log";
constexpr const char* kCrash = "crash.log";
constexpr const char* kReports = "reports";

}  // namespace

void Diagnostics::startLogging() {
  // The directory is found on the log queue like every other file operation; at launch the queue
  // is idle, so this wait is short, and the handlers must be in place before anything else runs.
  std::string dir;
  log_.queue().async([this, &dir] { dir = log_.directory(); });
  log_.queue().drain();
  (void)crashes_.install(dir + "/" + kCrash);
  std::string line =
      "start " + facts_.processName + " " + version_ + " os=" + facts_.osVersion + " arch=" + facts_.arch;
  // Back-traces of a position-independent build are offsets; the build-id finds the matching
  // debug symbols.
  if (!facts_.buildId.empty()) line += " build-id=" + facts_.buildId;
  log_.log(std::move(line));
  log_.queue().async([this] { housekeeping(); });
}

std::string Diagnostics::redact(std::string_view text) const {
  return diagnostics::redact(text, RedactNames{facts_.userName, facts_.hostName, facts_.homeDirectory});
}

void Diagnostics::collectReports() {
  log_.queue().async([this] { copyReports(log_.directory() + "/" + kReports); });
}

void Diagnostics::housekeeping() {
  const std::string reports = log_.directory() + "/" + kReports;
  copyReports(reports);
  pruneReports(reports);
}

void Diagnostics::copyReports(const std::string& reportsDir) {
  const std::vector<std::string> names = crashes_.systemReports();
  if (names.empty()) return;
  if (!files_.createDirectories(reportsDir)) return;
  for (const std::string& name : names) {
    // Names come from the system; never let one climb out of "reports".
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") continue;
    const std::string target = reportsDir + "/" + name;
    if (files_.exists(target)) continue;
    if (const auto text = crashes_.readSystemReport(name)) (void)files_.write(target, *text);
  }
}

void Diagnostics::pruneReports(const std::string& reportsDir) {
  const auto names = files_.list(reportsDir);
  if (!names) return;
  std::vector<std::pair<double, std::string>> byAge;
  for (const std::string& name : *names) {
    const std::string path = reportsDir + "/" + name;
    byAge.emplace_back(files_.modified(path).value_or(0), path);
  }
  const auto kept =
      static_cast<std::size_t>(std::max<std::int64_t>(tunables_.integer(settings::T::reportsKept), 1));
  if (byAge.size() <= kept) return;
  std::sort(byAge.begin(), byAge.end());  // oldest first
  for (std::size_t i = 0; i + kept < byAge.size(); ++i) (void)files_.remove(byAge[i].second);
}

void Diagnostics::uploadLogs(bool force) {
  log_.queue().async([this, force] { upload(force); });
}

std::string Diagnostics::tail(const std::string& path, std::int64_t maxBytes) const {
  const auto limit = static_cast<std::uint64_t>(std::max<std::int64_t>(maxBytes, 0));
  std::string text = files_.readTail(path, limit).value_or("");
  // A tail cut from a longer file starts at its next whole line.
  if (files_.size(path).value_or(0) > text.size()) {
    const auto newline = text.find('\n');
    text.erase(0, newline == std::string::npos ? text.size() : newline + 1);
  }
  return text;
}

void Diagnostics::upload(bool force) {
  const auto consent = store_.get("consentVersion");
  const bool consented = consent && consent->is_number() && consent->get<double>() >= 1;
  if (!consented || tunables_.flag(settings::T::telemetryPaused) ||
      tunables_.flag(settings::T::logUploadPaused)) {
    return;
  }
  if (!sender_.send || !sender_.configured || !sender_.configured()) return;

  const std::string dir = log_.directory();
  const std::string events = tail(dir + "/" + kEvents, tunables_.integer(settings::T::logTailBytes));
  const std::string crash = tail(dir + "/" + kCrash, tunables_.integer(settings::T::crashTailBytes));
  // The newest reports first, as many as are kept.
  const std::string reportsDir = dir + "/" + kReports;
  std::vector<std::pair<double, std::string>> byAge;
  for (const std::string& name : files_.list(reportsDir).value_or(std::vector<std::string>{})) {
    byAge.emplace_back(files_.modified(reportsDir + "/" + name).value_or(0), name);
  }
  std::sort(byAge.begin(), byAge.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  const auto kept =
      static_cast<std::size_t>(std::max<std::int64_t>(tunables_.integer(settings::T::reportsKept), 1));
  if (byAge.size() > kept) byAge.resize(kept);

  // The signature: the lengths of the parts as sent, so a new line or a new report changes it.
  std::string signature = std::to_string(events.size()) + "-" + std::to_string(crash.size());
  nlohmann::json reports = nlohmann::json::array();
  for (const auto& [age, name] : byAge) {
    const std::string content =
        tail(reportsDir + "/" + name, tunables_.integer(settings::T::reportsTailBytes));
    signature.append("-").append(std::to_string(content.size()));
    reports.push_back({{"name", redact(name)}, {"content", redact(content)}});
  }
  const auto stored = store_.get("logSig");
  if (!force && stored && stored->is_string() && stored->get<std::string>() == signature) return;

  nlohmann::json payload = {
      {"events", redact(events)}, {"crash", redact(crash)}, {"reports", std::move(reports)}};
  platform::DefaultsStore& store = store_;
  sender_.send("logs", std::move(payload), force, [&store, signature](bool sent) {
    if (sent) store.set("logSig", signature);
  });
}

}  // namespace tarry::diagnostics
