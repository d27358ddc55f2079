#include "platform/qt/qt_main_loop.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QThreadPool>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <ctime>
#include <utility>

namespace tarry::platform::qt {
namespace {

double clockSeconds(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

/// Seconds to whole milliseconds for QTimer, which counts in an int.
std::chrono::milliseconds toMilliseconds(double seconds) {
  if (!(seconds > 0)) return std::chrono::milliseconds(0);
  const double ms = std::min(std::round(seconds * 1000.0), static_cast<double>(INT_MAX));
  return std::chrono::milliseconds(static_cast<long long>(ms));
}

/// A queue with a single worker thread: items run one at a time, in the order they came.
class QtSerialQueue final : public SerialQueue {
 public:
  QtSerialQueue() {
    pool_.setMaxThreadCount(1);
    // Keep the worker: a queue that runs often should not pay for a new thread each time.
    pool_.setExpiryTimeout(-1);
  }
  ~QtSerialQueue() override { pool_.waitForDone(); }

  void async(std::function<void()> work) override { pool_.start(std::move(work)); }
  // NOTE: must not be called from an item of this same queue, which would wait for itself.
  void drain() override { pool_.waitForDone(); }

 private:
  QThreadPool pool_;
};

}  // namespace

QtMainLoop::QtMainLoop() : context_(std::make_unique<QObject>()) {}

QtMainLoop::~QtMainLoop() {
  for (Timer& t : timers_) t.token->cancelled.store(true);
  // The timers are children of the context and go with it; queued calls to it are dropped by Qt.
  context_.reset();
  const std::lock_guard lock(queuesMutex_);
  queues_.clear();
}

double QtMainLoop::uptime() const { return clockSeconds(CLOCK_MONOTONIC); }

double QtMainLoop::now() const { return clockSeconds(CLOCK_REALTIME); }

CalendarFields QtMainLoop::localTime(double secondsSince1970) const {
  const auto t = static_cast<std::time_t>(std::floor(secondsSince1970));
  std::tm tm{};
  CalendarFields f;
  if (localtime_r(&t, &tm) == nullptr) return f;
  f.year = tm.tm_year + 1900;
  f.month = tm.tm_mon + 1;
  f.day = tm.tm_mday;
  f.hour = tm.tm_hour;
  f.minute = tm.tm_min;
  f.second = tm.tm_sec;
  f.weekday = tm.tm_wday;
  return f;
}

void QtMainLoop::sweepCancelledTimers() {
  std::erase_if(timers_, [](const Timer& t) {
    if (!t.token->cancelled.load()) return false;
    t.timer->stop();
    // deleteLater: the timer may be the one whose timeout is being delivered right now.
    t.timer->deleteLater();
    return true;
  });
}

Scheduled QtMainLoop::startTimer(double seconds, bool repeating, std::function<void()> work, double tolerance) {
  sweepCancelledTimers();
  auto token = std::make_shared<CancelToken>();
  auto* timer = new QTimer(context_.get());
  timer->setSingleShot(!repeating);
  timer->setTimerType(tolerance > 0 ? Qt::CoarseTimer : Qt::PreciseTimer);
  QObject::connect(timer, &QTimer::timeout, context_.get(),
                   [token, repeating, timer, work = std::move(work)] {
                     if (token->cancelled.load()) {
                       timer->stop();
                       return;
                     }
                     if (!repeating) token->cancelled.store(true);
                     work();
                   });
  timer->start(toMilliseconds(seconds));
  timers_.push_back({token, timer});
  return Scheduled(std::move(token));
}

Scheduled QtMainLoop::after(double delay, std::function<void()> work, double tolerance) {
  return startTimer(delay, false, std::move(work), tolerance);
}

Scheduled QtMainLoop::every(double interval, std::function<void()> work, double tolerance) {
  // NOTE: a zero interval would spin the loop; the shortest period is one millisecond.
  return startTimer(std::max(interval, 0.001), true, std::move(work), tolerance);
}

Scheduled QtMainLoop::post(std::function<void()> work) {
  auto token = std::make_shared<CancelToken>();
  QMetaObject::invokeMethod(
      context_.get(),
      [token, work = std::move(work)] {
        if (token->cancelled.exchange(true)) return;
        work();
      },
      Qt::QueuedConnection);
  return Scheduled(std::move(token));
}

void QtMainLoop::dispatchMain(std::function<void()> work) {
  // A queued call to an object of the main thread is thread-safe and runs in posting order.
  QMetaObject::invokeMethod(context_.get(), std::move(work), Qt::QueuedConnection);
}

void QtMainLoop::background(std::function<void()> work) { QThreadPool::globalInstance()->start(std::move(work)); }

SerialQueue& QtMainLoop::serialQueue(const std::string& label) {
  const std::lock_guard lock(queuesMutex_);
  auto& queue = queues_[label];
  if (!queue) queue = std::make_unique<QtSerialQueue>();
  return *queue;
}

int QtMainLoop::run() {
  // QCoreApplication::exit does nothing before exec has started, so an early quit is kept here.
  if (quitEarly_) {
    quitEarly_ = false;
    return quitStatus_;
  }
  running_ = true;
  const int status = QCoreApplication::exec();
  running_ = false;
  return status;
}

void QtMainLoop::quit(int status) {
  if (running_) {
    QCoreApplication::exit(status);
  } else {
    quitEarly_ = true;
    quitStatus_ = status;
  }
}

}  // namespace tarry::platform::qt
