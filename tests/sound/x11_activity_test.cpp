#include "platform/x11/x11_activity.h"

#include "linux/temp_dir.h"
#include "x_server.h"

#include <gtest/gtest.h>
#include <xcb/screensaver.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

namespace tarry::platform::x11 {
namespace {

using std::chrono::milliseconds;
using ::tarry::testing::eventually;

/// Twice the screen saver timeout the tests set: long enough for an unsuspended saver to start.
constexpr milliseconds kIdle{2000};

/// A private Xvfb whose screen saver starts after one idle second, watched from a connection of
/// the test's own; the activity runs on a second connection, as the program's would.
class X11ActivityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!server.ok()) GTEST_SKIP() << "no Xvfb could be started";
    watcher = xcb_connect(server.display().c_str(), nullptr);
    client = xcb_connect(server.display().c_str(), nullptr);
    const auto* extension = xcb_get_extension_data(watcher, &xcb_screensaver_id);
    if (extension == nullptr || extension->present == 0) GTEST_SKIP() << "Xvfb has no MIT-SCREEN-SAVER";
    root = xcb_setup_roots_iterator(xcb_get_setup(watcher)).data->root;
    xcb_set_screen_saver(watcher, 1, 0, XCB_BLANKING_PREFERRED, XCB_EXPOSURES_ALLOWED);
    wake();
  }
  void TearDown() override {
    if (client != nullptr) xcb_disconnect(client);
    if (watcher != nullptr) xcb_disconnect(watcher);
  }
  /// Turns the saver off and restarts the idle time, as a key press would.
  void wake() {
    xcb_force_screen_saver(watcher, XCB_SCREEN_SAVER_RESET);
    std::free(xcb_get_input_focus_reply(watcher, xcb_get_input_focus(watcher), nullptr));
  }
  [[nodiscard]] bool saverOn() const {
    auto* info =
        xcb_screensaver_query_info_reply(watcher, xcb_screensaver_query_info(watcher, root), nullptr);
    const bool on = info != nullptr && info->state == XCB_SCREENSAVER_STATE_ON;
    std::free(info);
    return on;
  }

  test::XServer server;
  xcb_connection_t* watcher = nullptr;
  xcb_connection_t* client = nullptr;
  xcb_window_t root = 0;
};

TEST_F(X11ActivityTest, TheSaverStaysOffWhileAnyTokenLives) {
  X11Activity activity(client);
  ASSERT_TRUE(activity.canSuspend());
  ASSERT_TRUE(eventually([&] { return saverOn(); })) << "the idle server never starts its saver";

  wake();
  auto first = activity.begin("Hold to confirm");
  auto second = activity.begin("Hold to confirm");
  std::this_thread::sleep_for(kIdle);
  EXPECT_FALSE(saverOn());
  first.reset();
  std::this_thread::sleep_for(kIdle);
  EXPECT_FALSE(saverOn()) << "the suspension ended while a token was still alive";
  second.reset();
  EXPECT_TRUE(eventually([&] { return saverOn(); }));

  // The server's count of our suspensions is balanced: a later activity suspends again.
  wake();
  auto third = activity.begin("Hold to confirm");
  std::this_thread::sleep_for(kIdle);
  EXPECT_FALSE(saverOn());
}

TEST_F(X11ActivityTest, TokensOutlivingTheActivityOrWithoutAServerDoNothing) {
  auto activity = std::make_unique<X11Activity>(client);
  auto token = activity->begin("Hold to confirm");
  activity.reset();
  EXPECT_TRUE(eventually([&] { return saverOn(); }));
  xcb_disconnect(client);  // ending the token must not touch the connection any more
  client = nullptr;
  token.reset();

  xcb_connection_t* broken = xcb_connect("/nonexistent/tarry-test:0", nullptr);
  for (xcb_connection_t* connection : {static_cast<xcb_connection_t*>(nullptr), broken}) {
    X11Activity without(connection);
    EXPECT_FALSE(without.canSuspend());
    EXPECT_NE(without.begin("Hold to confirm"), nullptr);
  }
  xcb_disconnect(broken);
}

}  // namespace
}  // namespace tarry::platform::x11
