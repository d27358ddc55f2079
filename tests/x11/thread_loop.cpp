#include "thread_loop.h"

namespace tarry::test {

platform::Scheduled ThreadLoop::after(double delay, std::function<void()> work, double) {
  auto token = std::make_shared<platform::CancelToken>();
  std::lock_guard lock(mutex_);
  timers_.push_back(Timer{Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(delay)),
                          token, std::move(work)});
  return platform::Scheduled(token);
}

void ThreadLoop::dispatchMain(std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(work));
  }
  wake_.notify_all();
}

bool ThreadLoop::pumpUntil(const std::function<bool()>& done, double seconds) {
  const Clock::time_point end =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (!done()) {
    std::function<void()> work;
    {
      std::unique_lock lock(mutex_);
      for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->token->cancelled) {
          timers_.erase(it);
          break;
        }
        if (it->due <= Clock::now()) {
          work = std::move(it->work);
          timers_.erase(it);
          break;
        }
      }
      if (!work && !queue_.empty()) {
        work = std::move(queue_.front());
        queue_.pop_front();
      }
      if (!work) {
        if (Clock::now() >= end) return done();
        wake_.wait_for(lock, std::chrono::milliseconds(5));
        continue;
      }
    }
    work();
  }
  return true;
}

}  // namespace tarry::test
