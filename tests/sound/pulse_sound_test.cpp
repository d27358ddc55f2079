#include "platform/linux/pulse_sound.h"

#include "pulse_daemon.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tarry::platform::os {
namespace {

using std::chrono::milliseconds;
using testing::eventually;
using testing::PulseDaemon;
using testing::Spawned;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRate = 48000;

/// The loud stretches (above 1% of full scale) of a mono s16 recording, in samples, with their
/// peaks; gaps under 20 ms, the zero crossings of a tone, belong to the stretch around them.
struct Burst {
  std::size_t begin, end;
  int peak;
};
std::vector<Burst> bursts(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<Burst> found;
  std::int16_t sample = 0;
  for (std::size_t i = 0; in.read(reinterpret_cast<char*>(&sample), sizeof sample); ++i) {
    const int level = std::abs(static_cast<int>(sample));
    if (level < 330) continue;
    if (found.empty() || i - found.back().end > kRate / 50) found.push_back({i, i, 0});
    found.back().end = i + 1;
    found.back().peak = std::max(found.back().peak, level);
  }
  return found;
}
double ms(const Burst& b) { return 1000.0 * static_cast<double>(b.end - b.begin) / kRate; }

/// A private PulseAudio daemon whose speakers are recorded into `recording`.
class PulseSoundTest : public ::testing::Test {
 protected:
  /// Starts the daemon and its recorder; false when it does not come up.
  /// NOTE: a fresh null sink first renders a block of about two seconds before it follows the
  /// recorder's short latency, so this returns only once samples flow steadily (the file grew at
  /// five polls 10 ms apart).
  bool startDaemon() {
    if (!pulse.start()) return false;
    recorder = std::make_unique<Spawned>(std::vector<std::string>{
        "parec", "-s", pulse.server(), "--raw", "--format=s16le", "--channels=1", "--rate=" + std::to_string(kRate),
        "--latency-msec=10", "--device=speakers.monitor", recording});
    std::uintmax_t last = 0;
    int grew = 0;
    return eventually(
        [&] {
          std::error_code ec;
          const auto size = fs::file_size(recording, ec);
          grew = !ec && last > 0 && size > last ? grew + 1 : 0;
          last = ec ? 0 : size;
          return grew >= 5;
        },
        milliseconds(10000));
  }
  /// The bursts once `count` are heard and `quiet` has passed after that.
  std::vector<Burst> settle(std::size_t count, milliseconds quiet = milliseconds(700)) {
    eventually([&] { return bursts(recording).size() >= count; });
    std::this_thread::sleep_for(quiet);
    return bursts(recording);
  }

  PulseDaemon pulse;
  std::string recording = pulse.dir / "monitor.raw";
  std::unique_ptr<Spawned> recorder;
};

#define START_DAEMON_OR_SKIP() \
  if (!startDaemon())          \
  GTEST_SKIP() << "no PulseAudio daemon with a recorded null sink; see " << pulse.log()

TEST_F(PulseSoundTest, PopIsAShortAudibleSoundOtherNamesAreSilentAndOverlapsAreDropped) {
  START_DAEMON_OR_SKIP();
  PulseSound sound(pulse.server());
  for (const char* name : {"Beep", "pop", "", "Pop "}) sound.play(name);
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_TRUE(bursts(recording).empty());

  // Presses while the pop still plays (it lasts longer than 50 ms) add nothing, not even later.
  for (const auto first = Clock::now(); Clock::now() - first < milliseconds(50);) {
    sound.play("Pop");
    std::this_thread::sleep_for(milliseconds(2));
  }
  auto heard = settle(1);
  ASSERT_EQ(heard.size(), 1U);
  EXPECT_GT(heard[0].peak, 8000);
  EXPECT_GT(ms(heard[0]), 35.0);
  EXPECT_LT(ms(heard[0]), 110.0);

  sound.play("Pop");  // the first one is over: this one sounds
  heard = settle(2);
  ASSERT_EQ(heard.size(), 2U);
  EXPECT_LT(ms(heard[1]), 110.0);
}

TEST_F(PulseSoundTest, NoServerOrAHungOneNeverHoldsUpTheCallerAndLaterPlaysConnect) {
  const auto returnsAtOnce = [](PulseSound& sound) {
    const auto start = Clock::now();
    sound.play("Pop");
    return Clock::now() - start < milliseconds(200);
  };
  {
    PulseSound lonely(pulse.server());  // nothing listens
    EXPECT_TRUE(returnsAtOnce(lonely));
  }
  // A server that takes the connection and never answers the handshake.
  const int hung = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, pulse.socket().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(hung, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(hung, 8), 0);
  PulseSound sound(pulse.server(), milliseconds(800));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(returnsAtOnce(sound));
  auto start = Clock::now();
  {
    PulseSound stuck(pulse.server(), milliseconds(20000));
    stuck.play("Pop");
    std::this_thread::sleep_for(milliseconds(100));
    start = Clock::now();
  }
  EXPECT_LT(Clock::now() - start, milliseconds(2000)) << "shutting down waited out a connection attempt";

  // The attempt on the hung server gave up; a real server on the same path is found by a later play.
  fs::remove(pulse.socket());
  START_DAEMON_OR_SKIP();
  EXPECT_TRUE(eventually(
      [&] {
        sound.play("Pop");
        return !bursts(recording).empty();
      },
      milliseconds(10000)));
  ::close(hung);
}

}  // namespace
}  // namespace tarry::platform::os
