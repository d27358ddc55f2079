#include "diagnostics/log.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace tarry::diagnostics {
namespace {

constexpr const char* kQueue = "app.log";
constexpr const char* kFileName = "events.log";

/// Days since 1970-01-01 → civil date (proleptic Gregorian calendar).
void civilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2 ? 1 : 0);
}

}  // namespace

std::string Log::timestamp(double secondsSince1970) {
  // NOTE: a moment before 1970 or beyond year 9999 still formats; only a non-number reads as 0.
  const double floored = std::isfinite(secondsSince1970) ? std::floor(secondsSince1970) : 0.0;
  const auto total = static_cast<std::int64_t>(std::clamp(floored, -6.2e10, 2.5e11));
  std::int64_t days = total / 86400;
  std::int64_t rest = total % 86400;
  if (rest < 0) {
    rest += 86400;
    days -= 1;
  }
  std::int64_t year = 0;
  unsigned month = 0;
  unsigned day = 0;
  civilFromDays(days, year, month, day);
  char text[40];
  std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02d:%02d:%02dZ", static_cast<long long>(year), month,
                day, static_cast<int>(rest / 3600), static_cast<int>(rest % 3600 / 60),
                static_cast<int>(rest % 60));
  return text;
}

Log::~Log() { queue().drain(); }

void Log::log(std::string line) {
  // The moment is taken here, on the caller's thread: the record tells when the event happened,
  // not when the queue got round to it.
  std::string record = timestamp(loop_.now());
  record.reserve(record.size() + line.size() + 2);
  record.append(" ").append(line).append("\n");
  queue().async([this, record = std::move(record)] { write(record); });
}

platform::SerialQueue& Log::queue() { return loop_.serialQueue(kQueue); }

std::string Log::directory() {
  if (const auto v = store_.get("logDir"); v && v->is_string()) {
    std::string path = v->get<std::string>();
    if (!path.empty() && files_.exists(path)) return path;
  }
  std::string name;
  for (const char c : files_.newUUID()) {
    if (c == '-') continue;
    name.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    if (name.size() == 16) break;
  }
  const std::string root = files_.stateDirectory();
  std::string dir = root;
  if (dir.empty() || dir.back() != '/') dir.push_back('/');
  dir += name;
  // A failure to create it is not an error here: the append below fails quietly, and the next
  // record tries again.
  if (files_.createDirectories(dir)) {
    (void)files_.restrictToOwner(root);
    (void)files_.restrictToOwner(dir);
  }
  store_.set("logDir", dir);
  return dir;
}

void Log::write(const std::string& record) {
  const std::string path = directory() + "/" + kFileName;
  if (!files_.append(path, record)) return;
  const auto maxBytes =
      static_cast<std::uint64_t>(std::max<std::int64_t>(tunables_.integer(settings::T::logMaxBytes), 0));
  const auto size = files_.size(path);
  if (!size || *size <= maxBytes) return;
  // Keep five twelfths of the cap, so the file does not need cutting again for a long while.
  const std::uint64_t keep = 5 * maxBytes / 12;
  if (const auto tail = files_.readTail(path, keep)) (void)files_.write(path, *tail);
}

}  // namespace tarry::diagnostics
