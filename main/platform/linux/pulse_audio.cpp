#include "platform/linux/pulse_audio.h"

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop-api.h>
#include <pulse/operation.h>
#include <pulse/proplist.h>
#include <pulse/subscribe.h>
#include <pulse/thread-mainloop.h>
#include <pulse/timeval.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <unordered_set>
#include <utility>

namespace tarry::platform::os {
namespace {

/// One per-process question: three stream lists asked at once, answered on the loop thread.
struct Query {
  std::mutex mutex;
  std::condition_variable done;
  int pending = 0;
  bool failed = false;
  std::unordered_set<std::int32_t> pids;
  bool playing = false;
  /// Source index of each uncorked source-output owned by one of `pids`.
  std::vector<std::uint32_t> recordingSources;
  /// Sources that are monitors of a sink (recording what plays, not an input device).
  std::unordered_set<std::uint32_t> monitors;
};
using QueryBox = std::shared_ptr<Query>;

bool ownedBy(const Query& q, pa_proplist* props) {
  const char* value = props != nullptr ? pa_proplist_gets(props, PA_PROP_APPLICATION_PROCESS_ID) : nullptr;
  if (value == nullptr) return false;
  std::int32_t pid = 0;
  const auto* end = value + std::strlen(value);
  const auto [ptr, ec] = std::from_chars(value, end, pid);
  return ec == std::errc() && ptr == end && q.pids.count(pid) != 0;
}

void onSinkInput(pa_context* /*c*/, const pa_sink_input_info* info, int /*eol*/, void* userdata) {
  if (info == nullptr) return;  // end of list or error: the operation's state callback finishes
  auto& q = **static_cast<QueryBox*>(userdata);
  const std::lock_guard lock(q.mutex);
  if (info->corked == 0 && ownedBy(q, info->proplist)) q.playing = true;
}

void onSourceOutput(pa_context* /*c*/, const pa_source_output_info* info, int /*eol*/, void* userdata) {
  if (info == nullptr) return;
  auto& q = **static_cast<QueryBox*>(userdata);
  const std::lock_guard lock(q.mutex);
  if (info->corked == 0 && ownedBy(q, info->proplist)) q.recordingSources.push_back(info->source);
}

void onSource(pa_context* /*c*/, const pa_source_info* info, int /*eol*/, void* userdata) {
  if (info == nullptr) return;
  auto& q = **static_cast<QueryBox*>(userdata);
  const std::lock_guard lock(q.mutex);
  if (info->monitor_of_sink != PA_INVALID_INDEX) q.monitors.insert(info->index);
}

/// Called after the list callback's last call (DONE) or instead of it (CANCELLED: the context
/// failed or was disconnected). Owns the box handed to the operation.
void onOperationState(pa_operation* op, void* userdata) {
  const auto state = pa_operation_get_state(op);
  if (state == PA_OPERATION_RUNNING) return;
  auto* box = static_cast<QueryBox*>(userdata);
  {
    auto& q = **box;
    const std::lock_guard lock(q.mutex);
    if (state == PA_OPERATION_CANCELLED) q.failed = true;
    if (--q.pending == 0) q.done.notify_all();
  }
  delete box;
}

}  // namespace

struct PulseAudio::Impl {
  std::string server;
  std::chrono::milliseconds timeout;
  pa_threaded_mainloop* loop = nullptr;
  pa_mainloop_api* api = nullptr;
  // The fields below change only on the loop thread or under the loop's lock.
  pa_context* context = nullptr;
  pa_time_event* retry = nullptr;
  std::chrono::seconds retryDelay = kReconnect;
  bool stopping = false;
  std::atomic<bool> ready{false};
  std::atomic<bool> microphone{false};

  void connect() {
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Tarry");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "tarry");
    context = pa_context_new_with_proplist(api, "Tarry", props);
    pa_proplist_free(props);
    if (context == nullptr) {
      scheduleRetry();
      return;
    }
    pa_context_set_state_callback(context, &Impl::onState, this);
    if (pa_context_connect(context, server.empty() ? nullptr : server.c_str(), PA_CONTEXT_NOAUTOSPAWN,
                           nullptr) < 0) {
      scheduleRetry();
    }
  }

  /// Stops retrying, drops the connection and frees the loop; `running` when its thread started.
  void shutDown(bool running) {
    pa_threaded_mainloop_lock(loop);
    stopping = true;
    if (retry != nullptr) api->time_free(retry);
    retry = nullptr;
    // Cancels every operation still running; their state callbacks release waiting queries.
    dropContext();
    pa_threaded_mainloop_unlock(loop);
    if (running) pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
    loop = nullptr;
  }

  void dropContext() {
    if (context == nullptr) return;
    pa_context_set_state_callback(context, nullptr, nullptr);
    pa_context_set_subscribe_callback(context, nullptr, nullptr);
    pa_context_disconnect(context);
    pa_context_unref(context);
    context = nullptr;
  }

  void scheduleRetry() {
    ready = false;
    microphone = false;
    if (stopping || retry != nullptr) return;
    timeval when{};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, static_cast<pa_usec_t>(std::chrono::microseconds(retryDelay).count()));
    retryDelay = std::min<std::chrono::seconds>(retryDelay * 2, kReconnectMax);
    retry = api->time_new(api, &when, &Impl::onRetry, this);
  }

  static void onRetry(pa_mainloop_api* api, pa_time_event* event, const timeval* /*when*/, void* userdata) {
    auto* self = static_cast<Impl*>(userdata);
    api->time_free(event);
    self->retry = nullptr;
    // NOTE: the failed context is dropped here, outside its own state callback.
    self->dropContext();
    if (!self->stopping) self->connect();
  }

  static void onState(pa_context* c, void* userdata) {
    auto* self = static_cast<Impl*>(userdata);
    switch (pa_context_get_state(c)) {
      case PA_CONTEXT_READY: {
        self->ready = true;
        self->retryDelay = kReconnect;
        pa_context_set_subscribe_callback(c, &Impl::onEvent, self);
        const auto mask =
            static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SOURCE);
        if (pa_operation* op = pa_context_subscribe(c, mask, nullptr, nullptr)) pa_operation_unref(op);
        self->refresh(c);
        break;
      }
      case PA_CONTEXT_FAILED:
      case PA_CONTEXT_TERMINATED:
        self->scheduleRetry();
        break;
      default:
        break;
    }
  }

  static void onEvent(pa_context* c, pa_subscription_event_type_t type, std::uint32_t /*index*/,
                      void* userdata) {
    const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    // A new default source arrives as a server event; a source starting or stopping as a source
    // change event.
    if (facility == PA_SUBSCRIPTION_EVENT_SERVER || facility == PA_SUBSCRIPTION_EVENT_SOURCE) {
      static_cast<Impl*>(userdata)->refresh(c);
    }
  }

  void refresh(pa_context* c) {
    if (pa_operation* op = pa_context_get_server_info(c, &Impl::onServerInfo, this)) pa_operation_unref(op);
  }

  static void onServerInfo(pa_context* c, const pa_server_info* info, void* userdata) {
    auto* self = static_cast<Impl*>(userdata);
    if (info == nullptr || info->default_source_name == nullptr || *info->default_source_name == '\0') {
      self->microphone = false;
      return;
    }
    if (pa_operation* op =
            pa_context_get_source_info_by_name(c, info->default_source_name, &Impl::onDefaultSource, self)) {
      pa_operation_unref(op);
    }
  }

  static void onDefaultSource(pa_context* /*c*/, const pa_source_info* info, int eol, void* userdata) {
    auto* self = static_cast<Impl*>(userdata);
    if (eol < 0) self->microphone = false;  // the default names a source that is gone
    if (info == nullptr) return;
    // A monitor as the default source (a machine without any input) is not a microphone.
    self->microphone = info->state == PA_SOURCE_RUNNING && info->monitor_of_sink == PA_INVALID_INDEX;
  }
};

PulseAudio::PulseAudio(std::string server, std::chrono::milliseconds queryTimeout)
    : impl_(std::make_unique<Impl>()) {
  impl_->server = std::move(server);
  impl_->timeout = queryTimeout;
  impl_->loop = pa_threaded_mainloop_new();
  if (impl_->loop == nullptr) return;
  impl_->api = pa_threaded_mainloop_get_api(impl_->loop);
  pa_threaded_mainloop_set_name(impl_->loop, "tarry-pulse");
  pa_threaded_mainloop_lock(impl_->loop);
  impl_->connect();
  pa_threaded_mainloop_unlock(impl_->loop);
  if (pa_threaded_mainloop_start(impl_->loop) < 0) impl_->shutDown(false);
}

PulseAudio::~PulseAudio() {
  if (impl_->loop != nullptr) impl_->shutDown(true);
}

bool PulseAudio::microphoneInUse() { return impl_->microphone.load(); }

bool PulseAudio::reportsPerProcess() { return impl_->ready.load(); }

ProcessAudioUse PulseAudio::processUse(const std::vector<std::int32_t>& pids) {
  if (pids.empty() || impl_->loop == nullptr || !impl_->ready.load()) return {};
  auto q = std::make_shared<Query>();
  q->pids.insert(pids.begin(), pids.end());

  pa_threaded_mainloop_lock(impl_->loop);
  pa_context* c = impl_->context;
  if (c == nullptr || pa_context_get_state(c) != PA_CONTEXT_READY) {
    pa_threaded_mainloop_unlock(impl_->loop);
    return {};
  }
  // NOTE: no callback can run before the unlock, so `pending` is complete before anyone reads it.
  const auto start = [&](auto request) {
    auto* box = new QueryBox(q);
    pa_operation* op = request(box);
    if (op == nullptr) {
      delete box;
      q->failed = true;
      return;
    }
    ++q->pending;
    pa_operation_set_state_callback(op, &onOperationState, box);
    pa_operation_unref(op);
  };
  start([c](QueryBox* box) { return pa_context_get_sink_input_info_list(c, &onSinkInput, box); });
  start([c](QueryBox* box) { return pa_context_get_source_output_info_list(c, &onSourceOutput, box); });
  start([c](QueryBox* box) { return pa_context_get_source_info_list(c, &onSource, box); });
  pa_threaded_mainloop_unlock(impl_->loop);

  std::unique_lock lock(q->mutex);
  // A server that stops answering costs at most the timeout; the late answers land in `q`, which
  // the operations keep alive.
  if (!q->done.wait_for(lock, impl_->timeout, [&] { return q->pending == 0; }) || q->failed) return {};
  ProcessAudioUse use;
  use.playing = q->playing;
  for (const auto source : q->recordingSources) {
    if (q->monitors.count(source) == 0) use.recording = true;
  }
  return use;
}

}  // namespace tarry::platform::os
