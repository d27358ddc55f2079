#include "platform/sim/sim_main_loop.h"

#include <cmath>
#include <utility>

namespace tarry::platform::sim {
namespace {

/// Runs work inline, in order: deterministic for tests.
class InlineSerialQueue final : public SerialQueue {
 public:
  void async(std::function<void()> work) override { work(); }
  void drain() override {}
};

/// Days since 1970-01-01 → civil date (proleptic Gregorian).
void civilFromDays(std::int64_t z, int& y, int& m, int& d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t yy = static_cast<std::int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = static_cast<int>(yy + (m <= 2 ? 1 : 0));
}

}  // namespace

SimMainLoop::SimMainLoop(double uptime, double wall) : uptime_(uptime), wall_(wall) {}

SimMainLoop::~SimMainLoop() = default;

CalendarFields SimMainLoop::localTime(double secondsSince1970) const {
  const double local = std::floor(secondsSince1970 + utcOffset_);
  const auto total = static_cast<std::int64_t>(local);
  std::int64_t days = total / 86400;
  std::int64_t rest = total % 86400;
  if (rest < 0) {
    rest += 86400;
    days -= 1;
  }
  CalendarFields f;
  civilFromDays(days, f.year, f.month, f.day);
  f.hour = static_cast<int>(rest / 3600);
  f.minute = static_cast<int>(rest % 3600 / 60);
  f.second = static_cast<int>(rest % 60);
  // 1970-01-01 was a Thursday (4).
  f.weekday = static_cast<int>(((days % 7) + 7 + 4) % 7);
  return f;
}

Scheduled SimMainLoop::schedule(double delay, double interval, std::function<void()> work) {
  auto token = std::make_shared<CancelToken>();
  Item item{uptime_ + std::max(delay, 0.0), nextSeq_++, interval, token,
            std::make_shared<std::function<void()>>(std::move(work))};
  items_.emplace(std::make_pair(item.due, item.seq), std::move(item));
  return Scheduled(std::move(token));
}

Scheduled SimMainLoop::after(double delay, std::function<void()> work, double /*tolerance*/) {
  return schedule(delay, 0, std::move(work));
}

Scheduled SimMainLoop::every(double interval, std::function<void()> work, double /*tolerance*/) {
  // NOTE: a zero interval would fire forever at one instant; the smallest step is a microsecond.
  const double step = std::max(interval, 1e-6);
  return schedule(step, step, std::move(work));
}

Scheduled SimMainLoop::post(std::function<void()> work) { return schedule(0, 0, std::move(work)); }

void SimMainLoop::dispatchMain(std::function<void()> work) {
  const std::lock_guard lock(incomingMutex_);
  incoming_.push_back(std::move(work));
}

void SimMainLoop::takeIncoming() {
  std::vector<std::function<void()>> incoming;
  {
    const std::lock_guard lock(incomingMutex_);
    incoming.swap(incoming_);
  }
  for (auto& work : incoming) {
    Item item{uptime_, nextSeq_++, 0, std::make_shared<CancelToken>(),
              std::make_shared<std::function<void()>>(std::move(work))};
    items_.emplace(std::make_pair(item.due, item.seq), std::move(item));
  }
}

void SimMainLoop::background(std::function<void()> work) {
  if (holdBackground_) {
    held_.push_back(std::move(work));
  } else {
    work();
  }
}

std::size_t SimMainLoop::releaseBackground() {
  std::size_t ran = 0;
  while (!held_.empty()) {
    auto work = std::move(held_.front());
    held_.pop_front();
    work();
    ++ran;
  }
  return ran;
}

void SimMainLoop::discardBackground() { held_.clear(); }

SerialQueue& SimMainLoop::serialQueue(const std::string& label) {
  auto& queue = queues_[label];
  if (!queue) queue = std::make_unique<InlineSerialQueue>();
  return *queue;
}

std::size_t SimMainLoop::pendingCount() const {
  std::size_t n = 0;
  for (const auto& [key, item] : items_) {
    if (!item.token->cancelled.load()) ++n;
  }
  return n;
}

void SimMainLoop::advance(double seconds) {
  const double end = uptime_ + std::max(seconds, 0.0);
  const double wallAtStart = wall_;
  const double uptimeAtStart = uptime_;
  for (;;) {
    takeIncoming();
    if (items_.empty() || quitRequested_) break;
    auto it = items_.begin();
    if (it->first.first > end + 1e-12) break;
    Item item = std::move(it->second);
    items_.erase(it);
    if (item.token->cancelled.load()) continue;
    uptime_ = std::max(uptime_, item.due);
    wall_ = wallAtStart + (uptime_ - uptimeAtStart);
    if (item.interval > 0) {
      // Re-arm before running, so the work may cancel its own timer.
      Item next{item.due + item.interval, nextSeq_++, item.interval, item.token, item.work};
      items_.emplace(std::make_pair(next.due, next.seq), std::move(next));
    } else {
      item.token->cancelled.store(true);
    }
    (*item.work)();
  }
  uptime_ = end;
  wall_ = wallAtStart + (end - uptimeAtStart);
}

int SimMainLoop::run() {
  quitRequested_ = false;
  while (!quitRequested_) {
    takeIncoming();
    auto it = items_.begin();
    while (it != items_.end() && it->second.token->cancelled.load()) it = items_.erase(it);
    if (it == items_.end()) break;
    advance(it->first.first - uptime_);
  }
  return quitStatus_;
}

void SimMainLoop::quit(int status) {
  quitStatus_ = status;
  quitRequested_ = true;
}

}  // namespace tarry::platform::sim
