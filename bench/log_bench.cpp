// What `log(line)` costs its caller while the disk is busy: the program's Log over the real main
// loop's serial queue and the real file system, with another thread writing and syncing large
// files to the same disk the whole time. Prints the caller-side latency percentiles and how long
// the queue took to write everything.
//
//   tarry_log_bench [LINES]   (default 200000)
#include "diagnostics/log.h"
#include "platform/linux/linux_file_system.h"
#include "platform/qt/qt_main_loop.h"
#include "platform/sim/memory_defaults_store.h"

#include "linux/temp_dir.h"

#include <QCoreApplication>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// Writes and syncs 8 MB at a time until stopped; returns the bytes written.
void keepDiskBusy(const std::string& path, const std::atomic<bool>& stop, std::uint64_t& written) {
  const std::string chunk(8 << 20, 'x');
  while (!stop.load()) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    if (::write(fd, chunk.data(), chunk.size()) > 0) written += chunk.size();
    ::fdatasync(fd);
    ::close(fd);
  }
}

double percentile(std::vector<double>& sorted, double p) {
  return sorted[std::min(sorted.size() - 1, static_cast<std::size_t>(p * static_cast<double>(sorted.size())))];
}

}  // namespace

int main(int argc, char** argv) {
  const long lines = argc > 1 ? std::max(1000L, std::atol(argv[1])) : 200000;
  QCoreApplication application(argc, argv);
  tarry::testing::TempDir dir;
  tarry::platform::qt::QtMainLoop loop;
  tarry::platform::os::LinuxFileSystem files;
  tarry::platform::sim::MemoryDefaultsStore store;
  tarry::settings::Tunables tunables;
  store.set("logDir", dir.path());
  std::vector<double> micros;
  micros.reserve(static_cast<std::size_t>(lines));

  std::atomic<bool> stop{false};
  std::uint64_t busyBytes = 0;
  std::thread busy(keepDiskBusy, dir / "busy.bin", std::cref(stop), std::ref(busyBytes));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // let the disk fill its queue
  Clock::duration drained{};
  {
    tarry::diagnostics::Log log(loop, files, store, tunables);
    const std::string text = "quit blocked: org.example.Editor held 0.4 s of 2.0 s (Ctrl+Q)";
    for (long i = 0; i < lines; ++i) {
      const auto start = Clock::now();
      log.log(text);
      micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
      // A program logs in bursts, not in one endless loop: a short rest every 100 lines.
      if (i % 100 == 99) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const auto drainStart = Clock::now();
    log.queue().drain();
    drained = Clock::now() - drainStart;
  }
  stop.store(true);
  busy.join();

  std::sort(micros.begin(), micros.end());
  std::printf("log(line) on the calling thread, %ld lines, disk busy (%.0f MB written and synced meanwhile):\n",
              lines, static_cast<double>(busyBytes) / 1e6);
  std::printf("  p50 %.2f us  p99 %.2f us  p99.9 %.2f us  max %.1f us\n", percentile(micros, 0.50),
              percentile(micros, 0.99), percentile(micros, 0.999), micros.back());
  std::printf("  the queue finished writing %.0f ms after the last call\n",
              std::chrono::duration<double, std::milli>(drained).count());
  const auto size = files.size(dir / "events.log");
  std::printf("  events.log: %llu bytes (cap %lld)\n", static_cast<unsigned long long>(size.value_or(0)),
              static_cast<long long>(tunables.integer(tarry::settings::T::logMaxBytes)));
  return 0;
}
