// How much delay tarry adds to key presses on an X11 desktop, measured where it matters: at the
// application. A private Xvfb + openbox runs tarry-test-client; this program presses keys through
// XTest and reads, from the client's log, when each press arrived (both use CLOCK_MONOTONIC). It
// measures once without tarry and once with tarry running and the client's rule set to "instant",
// so every Ctrl+Q goes through tarry's grab, its main loop and the re-injection, and is let through.
// Then, with the default rule, the time from a Ctrl+Q press to the HUD's first frame on screen
// (read back from the X server), the first showing of a freshly started tarry included.
//
//   tarry_latency_bench [PRESSES]      (default 300 per kind and run; at most 40 to the HUD)
//
// Prints median and 99th percentile per kind of press, what tarry adds, and the HUD's delay.
#include "x_server.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::uint8_t kCtrl = 37;
constexpr std::uint8_t kQ = 24;  // guarded with Ctrl
constexpr std::uint8_t kE = 26;  // never guarded
/// Presses timed to the HUD (each waits for the panel to go away first).
constexpr int kHudPresses = 40;

double monotonicSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

/// Follows the client's log: press lines as (keycode, seconds).
class LogTail {
 public:
  explicit LogTail(std::string path) : path_(std::move(path)) {}
  /// The arrival time of the next press of `keycode`, waiting up to `seconds`.
  std::optional<double> nextPress(int keycode, double seconds) {
    const double end = monotonicSeconds() + seconds;
    while (monotonicSeconds() < end) {
      std::ifstream in(path_);
      in.seekg(offset_);
      std::string line;
      while (std::getline(in, line)) {
        if (in.eof()) break;  // a line still being written
        offset_ += static_cast<std::streamoff>(line.size() + 1);
        std::istringstream words(line);
        long long micros = 0;
        std::string what;
        int code = 0;
        words >> micros >> what >> code;
        if (what == "press" && code == keycode) return static_cast<double>(micros) / 1e6;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return std::nullopt;
  }
  [[nodiscard]] bool contains(const std::string& text) const {
    std::ifstream in(path_);
    return std::string(std::istreambuf_iterator<char>(in), {}).find(text) != std::string::npos;
  }

 private:
  std::string path_;
  std::streamoff offset_ = 0;
};

struct Stats {
  double median = 0;
  double p99 = 0;
};

Stats stats(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const auto at = [&](double q) {
    return v[std::min(v.size() - 1, static_cast<std::size_t>(q * static_cast<double>(v.size())))];
  };
  return {at(0.5), at(0.99)};
}

/// Presses `key` `count` times (with Ctrl held when `withCtrl`) and returns each press's delay
/// from injection to arrival at the client, in seconds.
std::vector<double> measure(xcb_connection_t* c, LogTail& log, std::uint8_t key, bool withCtrl, int count) {
  std::vector<double> delays;
  const auto fake = [&](std::uint8_t type, std::uint8_t code) {
    xcb_test_fake_input(c, type, code, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  };
  if (withCtrl) {
    fake(XCB_KEY_PRESS, kCtrl);
    xcb_flush(c);
    log.nextPress(kCtrl, 5);
  }
  for (int i = 0; i < count; ++i) {
    const double sent = monotonicSeconds();
    fake(XCB_KEY_PRESS, key);
    xcb_flush(c);
    const std::optional<double> arrived = log.nextPress(key, 5);
    fake(XCB_KEY_RELEASE, key);
    xcb_flush(c);
    if (!arrived) {
      std::fprintf(stderr, "latency: press %d of keycode %d never arrived\n", i, key);
      std::exit(1);
    }
    delays.push_back(*arrived - sent);
    // A pause between presses, as between keystrokes; well under the auto-repeat delay.
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  if (withCtrl) fake(XCB_KEY_RELEASE, kCtrl);
  xcb_flush(c);
  return delays;
}

bool waitFor(const std::function<bool()>& condition, double seconds) {
  const double end = monotonicSeconds() + seconds;
  while (!condition()) {
    if (monotonicSeconds() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

/// Times the HUD on screen from outside tarry, as the user sees it: from a Ctrl+Q press until
/// tarry's panel (an override-redirect window) has been drawn, i.e. the pixels across its middle
/// are neither the white of the client beneath nor the black of a window not yet drawn.
class HudWatch final {
 public:
  explicit HudWatch(const std::string& display) : c_(xcb_connect(display.c_str(), nullptr)) {
    root_ = xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root;
    const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(c_, root_, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(c_);
  }
  ~HudWatch() { xcb_disconnect(c_); }
  HudWatch(const HudWatch&) = delete;
  HudWatch& operator=(const HudWatch&) = delete;

  /// Short Ctrl+Q presses through `keys`; the delay of each to the first frame, in seconds.
  std::vector<double> measure(xcb_connection_t* keys, int presses) {
    std::vector<double> delays;
    const auto fake = [&](std::uint8_t type, std::uint8_t code) {
      xcb_test_fake_input(keys, type, code, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    };
    for (int i = 0; i < presses; ++i) {
      // Between presses the panel fades out (and a banner may follow): wait until none has been
      // on screen for a while.
      if (!quiet(0.5, 10)) {
        std::fprintf(stderr, "latency: the HUD did not go away\n");
        return {};
      }
      const double sent = monotonicSeconds();
      fake(XCB_KEY_PRESS, kCtrl);
      fake(XCB_KEY_PRESS, kQ);
      xcb_flush(keys);
      const std::optional<double> drawn = firstFrame(5);
      fake(XCB_KEY_RELEASE, kQ);
      fake(XCB_KEY_RELEASE, kCtrl);
      xcb_flush(keys);
      if (!drawn) {
        std::fprintf(stderr, "latency: press %d showed no HUD\n", i);
        return {};
      }
      delays.push_back(*drawn - sent);
    }
    return delays;
  }

 private:
  /// Follows map and unmap events of override-redirect windows (the set of those mapped).
  void handle(xcb_generic_event_t* event) {
    const std::uint8_t type = event->response_type & 0x7F;
    if (type == XCB_MAP_NOTIFY) {
      const auto* map = reinterpret_cast<xcb_map_notify_event_t*>(event);
      if (map->override_redirect) {
        mapped_.push_back(map->window);
        lastChange_ = monotonicSeconds();
      }
    } else if (type == XCB_UNMAP_NOTIFY || type == XCB_DESTROY_NOTIFY) {
      const xcb_window_t w = type == XCB_UNMAP_NOTIFY
                                 ? reinterpret_cast<xcb_unmap_notify_event_t*>(event)->window
                                 : reinterpret_cast<xcb_destroy_notify_event_t*>(event)->window;
      if (std::erase(mapped_, w) > 0) lastChange_ = monotonicSeconds();
    }
    std::free(event);
  }

  void drain() {
    while (xcb_generic_event_t* event = xcb_poll_for_event(c_)) handle(event);
  }

  /// True once no panel has been mapped for `seconds`; false after `timeout`.
  bool quiet(double seconds, double timeout) {
    const double end = monotonicSeconds() + timeout;
    while (monotonicSeconds() < end) {
      drain();
      if (mapped_.empty() && monotonicSeconds() - lastChange_ >= seconds) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  /// True when the middle row of `w` shows something drawn.
  bool drawn(xcb_window_t w) {
    xcb_get_geometry_reply_t* g = xcb_get_geometry_reply(c_, xcb_get_geometry(c_, w), nullptr);
    if (!g) return false;
    const std::uint16_t width = g->width;
    const std::uint16_t height = g->height;
    std::free(g);
    if (width < 8 || height < 8) return false;
    // The middle half of the middle row, clear of the rounded corners.
    xcb_get_image_reply_t* image = xcb_get_image_reply(
        c_,
        xcb_get_image(c_, XCB_IMAGE_FORMAT_Z_PIXMAP, w, static_cast<std::int16_t>(width / 4),
                      static_cast<std::int16_t>(height / 2), static_cast<std::uint16_t>(width / 2), 1, ~0U),
        nullptr);
    if (!image) return false;
    const int bytes = xcb_get_image_data_length(image);
    const std::uint8_t* data = xcb_get_image_data(image);
    bool painted = false;
    // 32 bits per pixel at depth 24 and 32 (BGRX / BGRA).
    for (int i = 0; i + 3 < bytes && !painted; i += 4) {
      const std::uint32_t rgb = data[i] | (data[i + 1] << 8) | (data[i + 2] << 16);
      painted = rgb != 0xFFFFFF && rgb != 0;
    }
    std::free(image);
    return painted;
  }

  /// The moment a panel mapped after now was first seen drawn, waiting up to `timeout`.
  std::optional<double> firstFrame(double timeout) {
    const double end = monotonicSeconds() + timeout;
    while (monotonicSeconds() < end) {
      drain();
      for (const xcb_window_t w : mapped_) {
        if (drawn(w)) return monotonicSeconds();
      }
      if (mapped_.empty()) {
        // Sleep in the event wait rather than spin: the map is what comes next.
        pollfd p{xcb_get_file_descriptor(c_), POLLIN, 0};
        (void)::poll(&p, 1, 1);
      }
    }
    return std::nullopt;
  }

  xcb_connection_t* c_;
  xcb_window_t root_ = 0;
  std::vector<xcb_window_t> mapped_;
  double lastChange_ = 0;
};

int run(const std::string& display, const std::string& tarry, const std::string& client,
        const std::string& dir, int count, const tarry::test::XServer& server) {
  xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
  const std::string clientLog = dir + "/client.log";
  // The client fills the screen, so the HUD appears over its white window.
  tarry::test::Process app(display, {client, "--log", clientLog, "--keep-running", "--class",
                                     "tarry-test-client,TarryTestClient", "--geometry", "1280x760+0+0"});
  LogTail log(clientLog);
  if (!waitFor([&] { return log.contains("ready"); }, 10)) {
    std::fprintf(stderr, "latency: the test client did not start\n");
    return 1;
  }
  std::ifstream ready(clientLog);
  std::string at, word, window;
  ready >> at >> word >> window;
  server.run({"xdotool", "windowactivate", "--sync", window});

  struct Kind {
    const char* name;
    std::uint8_t key;
    bool ctrl;
  };
  const Kind kinds[] = {{"Ctrl+Q (guarded, let through)", kQ, true},
                        {"E (not guarded)", kE, false},
                        {"Ctrl+E (not guarded)", kE, true}};
  std::map<std::string, std::vector<double>> without;
  std::map<std::string, std::vector<double>> with;
  for (const Kind& k : kinds) without[k.name] = measure(c, log, k.key, k.ctrl, count);

  // With tarry: its preferences and log in the temporary directory, the client known by its
  // desktop entry and given the "instant" rule. Consent is given and tarry starts as at login
  // (no tray here, and no Settings window taking the focus from the client).
  const std::string logDir = dir + "/logs";
  std::filesystem::create_directories(logDir);
  const auto write = [&](const std::string& key, const std::string& json) {
    return server.run({tarry, "defaults", "write", key, json}) == 0;
  };
  if (!write("appModes", R"({"org.tarry.TestClient":"instant"})") || !write("logDir", "\"" + logDir + "\"") ||
      !write("consentVersion", "1") || !write("showMenuBar", "false")) {
    std::fprintf(stderr, "latency: tarry defaults write failed\n");
    return 1;
  }
  const auto guardLines = [&] {
    std::ifstream events(logDir + "/events.log");
    const std::string text(std::istreambuf_iterator<char>(events), {});
    std::size_t n = 0;
    for (std::size_t at = text.find("keyboard guard on"); at != std::string::npos;
         at = text.find("keyboard guard on", at + 1)) {
      ++n;
    }
    return n;
  };
  std::vector<double> toHud;
  {
    tarry::test::Process guard(display, {tarry, "--autostart"});
    if (!waitFor([&] { return guardLines() >= 1; }, 15)) {
      std::fprintf(stderr, "latency: tarry did not install its keyboard guard\n");
      return 1;
    }
    for (const Kind& k : kinds) with[k.name] = measure(c, log, k.key, k.ctrl, count);
  }
  // The HUD: a fresh tarry with the default rule, so its first showing is measured too.
  if (server.run({tarry, "defaults", "delete", "appModes"}) != 0) {
    std::fprintf(stderr, "latency: tarry defaults delete failed\n");
    return 1;
  }
  {
    tarry::test::Process guard(display, {tarry, "--autostart"});
    if (!waitFor([&] { return guardLines() >= 2; }, 15)) {
      std::fprintf(stderr, "latency: tarry did not install its keyboard guard again\n");
      return 1;
    }
    HudWatch hud(display);
    toHud = hud.measure(c, std::min(count, kHudPresses));
    if (toHud.empty()) return 1;
  }
  xcb_disconnect(c);

  std::printf("Key press delay from XTest injection to arrival at the client, %d presses each (ms)\n", count);
  std::printf("%-32s %14s %14s %14s %14s %16s %16s\n", "", "median without", "p99 without", "median with",
              "p99 with", "added (median)", "added (p99)");
  for (const Kind& k : kinds) {
    const Stats a = stats(without[k.name]);
    const Stats b = stats(with[k.name]);
    std::printf("%-32s %14.3f %14.3f %14.3f %14.3f %16.3f %16.3f\n", k.name, a.median * 1e3, a.p99 * 1e3,
                b.median * 1e3, b.p99 * 1e3, (b.median - a.median) * 1e3, (b.p99 - a.p99) * 1e3);
  }
  const Stats h = stats(toHud);
  std::printf(
      "Ctrl+Q press to the HUD's first frame on screen, %zu presses, first showing included (ms): "
      "median %.3f, p99 %.3f, first %.3f (target p99 < 16)\n",
      toHud.size(), h.median * 1e3, h.p99 * 1e3, toHud.front() * 1e3);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 300;
  char pattern[] = "/tmp/tarry-latency-XXXXXX";
  const char* made = mkdtemp(pattern);
  if (!made) return 1;
  const std::string dir = made;
  std::filesystem::create_directories(dir + "/data/applications");
  std::ofstream(dir + "/data/applications/org.tarry.TestClient.desktop")
      << "[Desktop Entry]\nType=Application\nName=Tarry Test Client\nExec=tarry-test-client\n"
         "StartupWMClass=TarryTestClient\n";
  setenv("XDG_CONFIG_HOME", (dir + "/config").c_str(), 1);
  setenv("XDG_DATA_HOME", (dir + "/data").c_str(), 1);
  unsetenv("WAYLAND_DISPLAY");
  unsetenv("QT_QPA_PLATFORM");
  int status = 1;
  {
    tarry::test::XServer server(true);
    if (server.ok()) {
      status = run(server.display(), TARRY_BINARY, TARRY_TEST_CLIENT, dir, count, server);
    } else {
      std::fprintf(stderr, "latency: Xvfb did not start\n");
    }
  }
  std::filesystem::remove_all(dir);
  return status;
}
