// How much delay tarry adds to key presses on an X11 desktop, measured where it matters: at the
// application. A private Xvfb + openbox runs tarry-test-client; this program presses keys through
// XTest and reads, from the client's log, when each press arrived (both use CLOCK_MONOTONIC). It
// measures once without tarry and once with tarry running and the client's rule set to "instant",
// so every Ctrl+Q goes through tarry's grab, its main loop and the re-injection, and is let through.
//
//   tarry_latency_bench [PRESSES]      (default 300 per kind and run)
//
// Prints median and 99th percentile per kind of press, and what tarry adds.
#include "x_server.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <fstream>
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
  const auto at = [&](double q) { return v[std::min(v.size() - 1, static_cast<std::size_t>(q * static_cast<double>(v.size())))]; };
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

int run(const std::string& display, const std::string& tarry, const std::string& client, const std::string& dir,
        int count, const tarry::test::XServer& server) {
  xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
  const std::string clientLog = dir + "/client.log";
  tarry::test::Process app(display, {client, "--log", clientLog, "--keep-running", "--class",
                                     "tarry-test-client,TarryTestClient"});
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
  // desktop entry and given the "instant" rule.
  const std::string logDir = dir + "/logs";
  std::filesystem::create_directories(logDir);
  if (server.run({tarry, "defaults", "write", "appModes", R"({"org.tarry.TestClient":"instant"})"}) != 0 ||
      server.run({tarry, "defaults", "write", "logDir", "\"" + logDir + "\""}) != 0) {
    std::fprintf(stderr, "latency: tarry defaults write failed\n");
    return 1;
  }
  tarry::test::Process guard(display, {tarry});
  const auto guardOn = [&] {
    std::ifstream events(logDir + "/events.log");
    return std::string(std::istreambuf_iterator<char>(events), {}).find("keyboard guard on") != std::string::npos;
  };
  if (!waitFor(guardOn, 15)) {
    std::fprintf(stderr, "latency: tarry did not install its keyboard guard\n");
    return 1;
  }
  for (const Kind& k : kinds) with[k.name] = measure(c, log, k.key, k.ctrl, count);
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
