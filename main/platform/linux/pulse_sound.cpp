#include "platform/linux/pulse_sound.h"

#include <pulse/context.h>
#include <pulse/mainloop.h>
#include <pulse/operation.h>
#include <pulse/proplist.h>
#include <pulse/sample.h>
#include <pulse/stream.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <numbers>
#include <thread>
#include <utility>
#include <vector>

namespace tarry::platform::os {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kRate = 48000;
constexpr double kPopSec = 0.075;
/// The latency asked of the sink, so that the pop follows the key at once.
constexpr pa_usec_t kLatencyUsec = 40'000;
/// How long a play may take once connected: the pop and a sink that is slow to start (one waking
/// from suspend, a Bluetooth one) fit well within it.
constexpr std::chrono::milliseconds kPlayLimit{2000};

/// A soft 4 ms attack, then a sine falling from 620 Hz to 260 Hz under a 14 ms exponential decay;
/// the last 12 ms fade to exact silence so the stream ends without a click.
std::vector<float> synthesizePop() {
  constexpr double kAttackSec = 0.004;
  constexpr double kDecaySec = 0.014;
  constexpr double kFadeSec = 0.012;
  constexpr double kStartHz = 620.0;
  constexpr double kEndHz = 260.0;
  constexpr double kPeak = 0.5;
  const auto count = static_cast<std::size_t>(kPopSec * kRate);
  std::vector<float> samples(count);
  double phase = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    const double t = static_cast<double>(i) / kRate;
    const double hz = kStartHz * std::pow(kEndHz / kStartHz, t / kPopSec);
    double gain = std::exp(-std::max(0.0, t - kAttackSec) / kDecaySec);
    if (t < kAttackSec) gain *= std::pow(std::sin(std::numbers::pi / 2 * t / kAttackSec), 2);
    const double left = kPopSec - t;
    if (left < kFadeSec) gain *= std::pow(std::sin(std::numbers::pi / 2 * left / kFadeSec), 2);
    samples[i] = static_cast<float>(kPeak * gain * std::sin(phase));
    phase += 2 * std::numbers::pi * hz / kRate;
  }
  return samples;
}

}  // namespace

struct PulseSound::Impl {
  Impl(std::string server, std::chrono::milliseconds timeout)
      : server(std::move(server)), timeout(timeout), pop(synthesizePop()), loop(pa_mainloop_new()) {}

  void run();
  /// Runs the loop until `done` holds; false when `deadline` passed, the loop broke or we stop.
  bool runUntil(const std::function<bool()>& done, Clock::time_point deadline);
  bool connect();
  void disconnect();
  void playPop();

  const std::string server;
  const std::chrono::milliseconds timeout;
  const std::vector<float> pop;
  pa_mainloop* const loop;
  pa_context* context = nullptr;  // worker thread only
  /// NOTE: set by the play that is accepted, cleared by the worker once that play is over; a play
  /// that finds it set is dropped.
  std::atomic<bool> requested{false};
  std::atomic<bool> stopping{false};
  std::thread worker;
};

bool PulseSound::Impl::runUntil(const std::function<bool()>& done, Clock::time_point deadline) {
  while (!done()) {
    if (stopping) return false;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    if (pa_mainloop_prepare(loop, static_cast<int>(std::min<long long>(left, 1'000'000))) < 0 ||
        pa_mainloop_poll(loop) < 0 || pa_mainloop_dispatch(loop) < 0) {
      return false;
    }
  }
  return true;
}

bool PulseSound::Impl::connect() {
  pa_proplist* props = pa_proplist_new();
  pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Tarry");
  pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "tarry");
  pa_proplist_sets(props, PA_PROP_APPLICATION_ICON_NAME, "tarry");
  context = pa_context_new_with_proplist(pa_mainloop_get_api(loop), "Tarry", props);
  pa_proplist_free(props);
  if (context == nullptr) return false;
  // NOTE: without NOAUTOSPAWN libpulse may start a PulseAudio daemon on a desktop that runs
  // PipeWire or no sound server at all.
  if (pa_context_connect(context, server.empty() ? nullptr : server.c_str(), PA_CONTEXT_NOAUTOSPAWN,
                         nullptr) < 0) {
    disconnect();
    return false;
  }
  // A server that accepts the socket but never answers the handshake would hold the worker forever.
  const auto settled = [this] {
    const auto state = pa_context_get_state(context);
    return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
  };
  const bool ready =
      runUntil(settled, Clock::now() + timeout) && pa_context_get_state(context) == PA_CONTEXT_READY;
  if (!ready) disconnect();
  return ready;
}

void PulseSound::Impl::disconnect() {
  if (context == nullptr) return;
  pa_context_disconnect(context);
  pa_context_unref(context);
  context = nullptr;
}

void PulseSound::Impl::playPop() {
  // Take in whatever the server said while we were idle: a server that went away shows here.
  pa_mainloop_iterate(loop, 0, nullptr);
  if (context == nullptr || pa_context_get_state(context) != PA_CONTEXT_READY) {
    disconnect();
    if (!connect()) return;
  }
  const auto deadline = Clock::now() + timeout + kPlayLimit;

  const pa_sample_spec format{PA_SAMPLE_FLOAT32NE, kRate, 1};
  pa_proplist* props = pa_proplist_new();
  pa_proplist_sets(props, PA_PROP_MEDIA_ROLE, "event");
  pa_proplist_sets(props, PA_PROP_EVENT_ID, "Pop");
  pa_stream* stream = pa_stream_new_with_proplist(context, "Pop", &format, nullptr, props);
  pa_proplist_free(props);
  if (stream == nullptr) {
    disconnect();
    return;
  }
  const auto streamDone = [stream] { return !PA_STREAM_IS_GOOD(pa_stream_get_state(stream)); };
  // Ask for a short latency: with the server's default buffering (up to seconds) the pop would come
  // late after the key. All samples go in at once; a stream accepts more than its target length.
  pa_buffer_attr buffer{};
  buffer.maxlength = static_cast<std::uint32_t>(-1);
  buffer.tlength = static_cast<std::uint32_t>(pa_usec_to_bytes(kLatencyUsec, &format));
  buffer.prebuf = static_cast<std::uint32_t>(-1);
  buffer.minreq = static_cast<std::uint32_t>(-1);
  buffer.fragsize = static_cast<std::uint32_t>(-1);
  bool ok =
      pa_stream_connect_playback(stream, nullptr, &buffer, PA_STREAM_ADJUST_LATENCY, nullptr, nullptr) == 0 &&
      runUntil([&] { return pa_stream_get_state(stream) == PA_STREAM_READY || streamDone(); }, deadline) &&
      pa_stream_get_state(stream) == PA_STREAM_READY;
  // pa_stream_write copies the samples (no free callback), so `pop` stays ours.
  ok = ok &&
       pa_stream_write(stream, pop.data(), pop.size() * sizeof(float), nullptr, 0, PA_SEEK_RELATIVE) == 0;
  if (ok) {
    // Draining also starts playback of a stream that has not reached its prebuffer yet.
    bool drained = false;
    pa_operation* drain = pa_stream_drain(
        stream, [](pa_stream* /*s*/, int /*success*/, void* flag) { *static_cast<bool*>(flag) = true; },
        &drained);
    ok = drain != nullptr && runUntil([&] { return drained || streamDone(); }, deadline) && drained;
    if (drain != nullptr) {
      // NOTE: a cancelled operation never calls back, so `drained` may go out of scope.
      if (!drained) pa_operation_cancel(drain);
      pa_operation_unref(drain);
    }
  }
  pa_stream_disconnect(stream);
  pa_stream_unref(stream);
  // A stream that failed or timed out may mean a stuck server: start afresh on the next play.
  if (!ok) disconnect();
}

void PulseSound::Impl::run() {
  // Connect ahead of the first play so that it is not late by a handshake.
  connect();
  while (!stopping) {
    if (requested) {
      playPop();
      requested = false;
      continue;
    }
    // Sleeps until the server says something or `play` or the destructor wakes the loop.
    if (pa_mainloop_iterate(loop, 1, nullptr) < 0) break;
  }
  disconnect();
}

PulseSound::PulseSound(std::string server, std::chrono::milliseconds timeout)
    : impl_(std::make_unique<Impl>(std::move(server), timeout)) {
  if (impl_->loop != nullptr) impl_->worker = std::thread([impl = impl_.get()] { impl->run(); });
}

PulseSound::~PulseSound() {
  if (impl_->worker.joinable()) {
    impl_->stopping = true;
    pa_mainloop_wakeup(impl_->loop);
    impl_->worker.join();
  }
  if (impl_->loop != nullptr) pa_mainloop_free(impl_->loop);
}

void PulseSound::play(std::string_view name) {
  if (name != "Pop" || !impl_->worker.joinable()) return;
  if (impl_->requested.exchange(true)) return;  // one is in flight: drop this one
  // NOTE: only an accepted play wakes the loop, so its wake-up pipe can never fill up.
  pa_mainloop_wakeup(impl_->loop);
}

}  // namespace tarry::platform::os
