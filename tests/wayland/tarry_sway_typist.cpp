// Presses Ctrl+Q (or Ctrl and the key of another keysym) through a virtual keyboard of its own on
// the Wayland display, as a physical keyboard would, and prints when each press was sent
// (CLOCK_MONOTONIC, µs), for the sway end-to-end tests and bench/sway_latency.py. The keymap is
// xkbcommon's default, so XKB_DEFAULT_LAYOUT=ru makes it a Russian keyboard.
//
//   tarry-sway-typist PRESSES HOLD_MS GAP_MS [KEYSYM]
#include "platform/event_tap.h"
#include "platform/wayland/virtual_keyboard.h"

#include <xkbcommon/xkbcommon.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fputs("usage: tarry-sway-typist PRESSES HOLD_MS GAP_MS [KEYSYM]\n", stderr);
    return 2;
  }
  const xkb_keysym_t keysym = argc == 5 ? xkb_keysym_from_name(argv[4], XKB_KEYSYM_NO_FLAGS) : XKB_KEY_q;
  if (keysym == XKB_KEY_NoSymbol) {
    std::fprintf(stderr, "tarry-sway-typist: no keysym is called %s\n", argv[4]);
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
    if (!keyboard->key(keysym, tarry::platform::kFlagCommand, true)) {
      std::fputs("tarry-sway-typist: the keymap has no key for that keysym\n", stderr);
      return 1;
    }
    std::this_thread::sleep_for(hold);
    keyboard->key(keysym, tarry::platform::kFlagCommand, false);
    std::this_thread::sleep_for(gap);
  }
  return 0;
}
