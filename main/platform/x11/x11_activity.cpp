#include "platform/x11/x11_activity.h"

#include <xcb/screensaver.h>

#include <cstdlib>
#include <mutex>
#include <utility>

namespace tarry::platform::x11 {

struct X11Activity::State {
  std::mutex mutex;
  xcb_connection_t* connection = nullptr;  // null: nothing to suspend (or the activity is gone)
  int open = 0;

  void suspend(bool on) {
    // Suspend is a request without a reply; flushing sends it without waiting for the server.
    xcb_screensaver_suspend(connection, on ? 1 : 0);
    xcb_flush(connection);
  }
};

namespace {

bool hasSuspend(xcb_connection_t* connection) {
  if (connection == nullptr || xcb_connection_has_error(connection) != 0) return false;
  const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &xcb_screensaver_id);
  if (extension == nullptr || extension->present == 0) return false;
  // NOTE: Suspend came with version 1.1; an older server would answer it with an error event on
  // the shared connection, where other readers would meet it.
  xcb_screensaver_query_version_reply_t* version = xcb_screensaver_query_version_reply(
      connection,
      xcb_screensaver_query_version(connection, XCB_SCREENSAVER_MAJOR_VERSION, XCB_SCREENSAVER_MINOR_VERSION),
      nullptr);
  const bool ok =
      version != nullptr && (version->server_major_version > 1 ||
                             (version->server_major_version == 1 && version->server_minor_version >= 1));
  std::free(version);
  return ok;
}

}  // namespace

class X11Activity::Token final : public ActivityToken {
 public:
  explicit Token(std::shared_ptr<State> state) : state_(std::move(state)) {}
  ~Token() override {
    const std::lock_guard lock(state_->mutex);
    if (--state_->open == 0 && state_->connection != nullptr) state_->suspend(false);
  }
  Token(const Token&) = delete;
  Token& operator=(const Token&) = delete;

 private:
  std::shared_ptr<State> state_;
};

X11Activity::X11Activity(xcb_connection_t* connection) : state_(std::make_shared<State>()) {
  if (hasSuspend(connection)) state_->connection = connection;
}

X11Activity::~X11Activity() {
  const std::lock_guard lock(state_->mutex);
  if (state_->open > 0 && state_->connection != nullptr) state_->suspend(false);
  state_->connection = nullptr;
}

std::unique_ptr<ActivityToken> X11Activity::begin(std::string_view /*reason*/) {
  const std::lock_guard lock(state_->mutex);
  if (state_->open++ == 0 && state_->connection != nullptr) state_->suspend(true);
  return std::make_unique<Token>(state_);
}

bool X11Activity::canSuspend() const {
  const std::lock_guard lock(state_->mutex);
  return state_->connection != nullptr;
}

}  // namespace tarry::platform::x11
