// Presses Ctrl+Q through a virtual keyboard of its own on the Wayland display, as a physical
// keyboard would, and prints when each press was sent (CLOCK_MONOTONIC, µs), for the sway
// end-to-end tests and bench/sway_latency.py.
//
//   tarry-sway-typist PRESSES HOLD_MS GAP_MS
#include "platform/event_tap.h"
#include "platform/wayland/virtual_keyboard.h"

#include <xkbcommon/xkbcommon-keysyms.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: tarry-sway-typist PRESSES HOLD_MS GAP_MS\n", stderr);
    return 2;
  }
  const int presses = std::atoi(argv[1]);
  const std::chrono::milliseconds hold(std::atoi(argv[2]));
  const std::chrono::milliseconds gap(std::atoi(argv[3]));
  std::string error;
  auto keyboard = tarry::platform::wayland::VirtualKeyboard::open(error);
  if (!keyboard) {
    std::fprintf(stderr, "tarry-sway-typist: %s\n", error.c_str());
    return 1;
  }
  for (int i = 0; i < presses; ++i) {
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count();
    std::printf("press %lld\n", static_cast<long long>(micros));
    std::fflush(stdout);
    keyboard->key(XKB_KEY_q, tarry::platform::kFlagCommand, true);
    std::this_thread::sleep_for(hold);
    keyboard->key(XKB_KEY_q, tarry::platform::kFlagCommand, false);
    std::this_thread::sleep_for(gap);
  }
  return 0;
}
