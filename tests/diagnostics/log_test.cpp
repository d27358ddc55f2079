#include "diagnostics/log.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/memory_file_system.h"
#include "platform/sim/sim_main_loop.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>

namespace tarry::diagnostics {
namespace {

/// A serial queue that keeps its work until drained, to see what waits for the queue.
class DeferredQueue final : public platform::SerialQueue {
 public:
  void async(std::function<void()> work) override { work_.push_back(std::move(work)); }
  void drain() override {
    while (!work_.empty()) {
      auto next = std::move(work_.front());
      work_.pop_front();
      next();
    }
  }
  [[nodiscard]] std::size_t waiting() const { return work_.size(); }

 private:
  std::deque<std::function<void()>> work_;
};

/// The simulated loop, with named serial queues that wait to be drained.
class DeferringLoop final : public platform::MainLoop {
 public:
  double uptime() const override { return sim.uptime(); }
  double now() const override { return sim.now(); }
  platform::CalendarFields localTime(double t) const override { return sim.localTime(t); }
  platform::Scheduled after(double d, std::function<void()> w, double tol) override {
    return sim.after(d, std::move(w), tol);
  }
  platform::Scheduled every(double i, std::function<void()> w, double tol) override {
    return sim.every(i, std::move(w), tol);
  }
  platform::Scheduled post(std::function<void()> w) override { return sim.post(std::move(w)); }
  void dispatchMain(std::function<void()> w) override { sim.dispatchMain(std::move(w)); }
  void background(std::function<void()> w) override { sim.background(std::move(w)); }
  platform::SerialQueue& serialQueue(const std::string& label) override { return queues[label]; }
  int run() override { return sim.run(); }
  void quit(int status) override { sim.quit(status); }

  platform::sim::SimMainLoop sim{1000.0, 1'794'691'122.75};  // 2026-11-14T21:18:42.75Z
  std::map<std::string, DeferredQueue> queues;
};

class LogTest : public ::testing::Test {
 protected:
  DeferringLoop loop;
  platform::sim::MemoryFileSystem files;
  platform::sim::MemoryDefaultsStore store;
  settings::Tunables tunables;
  Log log{loop, files, store, tunables};

  [[nodiscard]] std::string dir() const { return store.get("logDir")->get<std::string>(); }
};

TEST(LogTimestamp, FormatsUtcDateTimeBySecondsDroppingFractions) {
  EXPECT_EQ(Log::timestamp(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(Log::timestamp(1'794'691'122.999), "2026-11-14T21:18:42Z");
  EXPECT_EQ(Log::timestamp(1'709'251'199), "2024-02-29T23:59:59Z");  // leap day
  EXPECT_EQ(Log::timestamp(951'868'800), "2000-03-01T00:00:00Z");    // after a leap century's Feb 29
  EXPECT_EQ(Log::timestamp(-0.5), "1969-12-31T23:59:59Z");
}

TEST_F(LogTest, WritesOnTheLogQueueWithTheCallersMoment) {
  log.log("start tarry");
  loop.sim.advance(5);
  log.log("quit confirmed");
  // Nothing touched the disk yet: the caller did not wait for it.
  EXPECT_FALSE(store.get("logDir"));
  ASSERT_EQ(loop.queues.count("app.log"), 1U);
  EXPECT_EQ(loop.queues["app.log"].waiting(), 2U);
  loop.queues["app.log"].drain();

  // A new private directory: the first 16 characters of a dash-less, lower-cased UUID in the
  // program's state directory.
  const std::string path = dir();
  const std::string root = "/state/tarry/";
  ASSERT_EQ(path.size(), root.size() + 16);
  EXPECT_EQ(path.rfind(root, 0), 0U);
  EXPECT_EQ(path.find_first_not_of("0123456789abcdef", root.size()), std::string::npos) << path;
  EXPECT_TRUE(files.ownerOnly(path));
  EXPECT_TRUE(files.ownerOnly("/state/tarry"));
  EXPECT_EQ(files.content(path + "/events.log"),
            "2026-11-14T21:18:42Z start tarry\n2026-11-14T21:18:47Z quit confirmed\n");
}

TEST_F(LogTest, KeepsAnExistingDirectoryAndReplacesAMissingOne) {
  files.createDirectories("/home/u/logs");
  store.set("logDir", "/home/u/logs");
  log.log("one");
  loop.queues["app.log"].drain();
  EXPECT_EQ(files.content("/home/u/logs/events.log"), "2026-11-14T21:18:42Z one\n");

  store.set("logDir", "/gone/away");
  log.log("two");
  loop.queues["app.log"].drain();
  EXPECT_NE(dir(), "/gone/away");
  EXPECT_EQ(files.content(dir() + "/events.log"), "2026-11-14T21:18:42Z two\n");
}

TEST_F(LogTest, CutsToFiveTwelfthsOfTheCapOnceOverIt) {
  tunables.setNumber(settings::T::logMaxBytes, 120000);
  const std::string text(100, 'x');             // 122-byte records
  for (int i = 0; i < 983; ++i) log.log(text);  // 119926 bytes: at the cap, not over
  loop.queues["app.log"].drain();
  const std::string path = dir() + "/events.log";
  EXPECT_EQ(files.size(path), 983U * 122);
  log.log(std::string(100, 'y'));  // 120048 bytes: over the cap
  loop.queues["app.log"].drain();
  const std::string content = files.content(path);
  EXPECT_EQ(content.size(), 50000U);  // ⌊5 × 120000 / 12⌋
  EXPECT_EQ(content.substr(content.size() - 122), "2026-11-14T21:18:42Z " + std::string(100, 'y') + "\n");
  EXPECT_EQ(content.substr(content.size() - 123, 1), "\n");
}

TEST_F(LogTest, FileErrorsAreSwallowedAndLaterLinesStillLand) {
  files.failWrites = true;
  log.log("lost");
  loop.queues["app.log"].drain();
  files.failWrites = false;
  log.log("kept");
  loop.queues["app.log"].drain();
  EXPECT_EQ(files.content(dir() + "/events.log"), "2026-11-14T21:18:42Z kept\n");
}

}  // namespace
}  // namespace tarry::diagnostics
