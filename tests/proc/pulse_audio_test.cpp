#include "platform/linux/pulse_audio.h"

#include "pulse_daemon.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

namespace tarry::platform::os {
namespace {

using std::chrono::milliseconds;
using testing::eventually;
using testing::PulseDaemon;
using testing::Spawned;

/// A private PulseAudio daemon with a null source ("mic", the default) besides its speakers.
class PulseDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!pulse.start({"module-null-source source_name=mic"})) {
      GTEST_SKIP() << "no PulseAudio daemon could be started (is the pulseaudio package installed?)";
    }
    audio = std::make_unique<PulseAudio>(pulse.server(), milliseconds(2000));
    if (!eventually([&] { return audio->reportsPerProcess(); })) {
      GTEST_SKIP() << "the PulseAudio daemon did not accept a connection; see " << pulse.log();
    }
  }
  /// The server's own listing (pactl) of `kind` shows a stream of `pid`.
  bool serverLists(const std::string& kind, pid_t pid) const {
    const auto command = "pactl -s '" + pulse.server() + "' list " + kind + " 2>/dev/null";
    FILE* out = ::popen(command.c_str(), "r");
    if (out == nullptr) return false;
    std::string text;
    std::array<char, 4096> buffer{};
    while (const auto n = std::fread(buffer.data(), 1, buffer.size(), out)) text.append(buffer.data(), n);
    ::pclose(out);
    return text.find("application.process.id = \"" + std::to_string(pid) + "\"") != std::string::npos;
  }
  std::unique_ptr<Spawned> client(const std::vector<std::string>& argv) {
    return std::make_unique<Spawned>(argv, pulse.env);
  }

  PulseDaemon pulse;
  std::unique_ptr<PulseAudio> audio;  // NOTE: declared after the daemon, so it goes first
};

TEST_F(PulseDaemonTest, ReportsTheMicrophoneAndEachProcesssStreams) {
  EXPECT_FALSE(audio->microphoneInUse());
  auto recorder = client({"parec", "--raw", "--device=mic"});
  auto player = client({"pacat", "--raw", "--playback", "--device=speakers", "/dev/zero"});
  auto monitor = client({"parec", "--raw", "--device=speakers.monitor"});
  EXPECT_TRUE(eventually([&] { return audio->microphoneInUse(); }));

  ProcessAudioUse use;
  EXPECT_TRUE(eventually([&] { return (use = audio->processUse({recorder->pid()})).recording; }));
  EXPECT_FALSE(use.playing);
  EXPECT_TRUE(eventually([&] { return (use = audio->processUse({1, player->pid()})).playing; }));
  EXPECT_FALSE(use.recording);
  // Recording what the speakers play is not using the microphone.
  ASSERT_TRUE(eventually([&] { return serverLists("source-outputs", monitor->pid()); }));
  use = audio->processUse({monitor->pid(), ::getpid()});
  EXPECT_FALSE(use.playing || use.recording);

  recorder->stop();
  EXPECT_TRUE(eventually([&] { return !audio->microphoneInUse(); }));
}

TEST_F(PulseDaemonTest, AServerThatGoesAwayAnswersNothingWithoutWaiting) {
  auto recorder = client({"parec", "--raw", "--device=mic"});
  ASSERT_TRUE(eventually([&] { return audio->microphoneInUse(); }));
  pulse.stop();
  EXPECT_TRUE(eventually([&] { return !audio->reportsPerProcess() && !audio->microphoneInUse(); }));
  const auto start = std::chrono::steady_clock::now();
  const auto use = audio->processUse({recorder->pid()});
  EXPECT_FALSE(use.playing || use.recording);
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(100));
}

TEST(PulseAudioWithoutServer, AnswersNothingAndNeverBlocks) {
  const auto start = std::chrono::steady_clock::now();
  {
    PulseAudio audio("unix:/nonexistent/tarry-test/native", milliseconds(2000));
    EXPECT_FALSE(audio.microphoneInUse());
    EXPECT_FALSE(audio.reportsPerProcess());
    const auto use = audio.processUse({static_cast<std::int32_t>(::getpid())});
    EXPECT_FALSE(use.playing || use.recording);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1000));
}

}  // namespace
}  // namespace tarry::platform::os
