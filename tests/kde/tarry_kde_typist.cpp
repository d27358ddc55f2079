// Presses keys through KWin's fake input, as a physical keyboard would, for the KDE end-to-end
// tests and bench/kde_latency.py. Each word is one step: "+CODE" presses the key of an evdev code,
// "-CODE" releases it, a plain number waits that many milliseconds. Prints "press <µs>"
// (CLOCK_MONOTONIC) as each non-modifier key goes down.
//
//   tarry-kde-typist +29 +16 -16 -29        Ctrl+Q
//   tarry-kde-typist +29 +16 2500 -16 -29   Ctrl+Q held for 2.5 s
#include "platform/kde/fake_input.h"

#include <linux/input-event-codes.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: tarry-kde-typist STEP...  (+CODE press, -CODE release, MS wait)\n", stderr);
    return 2;
  }
  std::string error;
  auto input = tarry::platform::kde::FakeInput::open(error);
  if (!input) {
    std::fprintf(stderr, "tarry-kde-typist: %s\n", error.c_str());
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string step = argv[i];
    if (step.empty()) continue;
    if (step[0] == '+' || step[0] == '-') {
      const auto code = static_cast<std::uint32_t>(std::atoi(step.c_str() + 1));
      const bool press = step[0] == '+';
      const bool modifier = code == KEY_LEFTCTRL || code == KEY_LEFTSHIFT || code == KEY_LEFTALT ||
                            code == KEY_RIGHTCTRL || code == KEY_RIGHTSHIFT || code == KEY_RIGHTALT;
      if (press && !modifier) {
        const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                                std::chrono::steady_clock::now().time_since_epoch())
                                .count();
        std::printf("press %lld\n", static_cast<long long>(micros));
        std::fflush(stdout);
      }
      if (!input->key(code, press)) {
        std::fputs("tarry-kde-typist: lost the Wayland connection\n", stderr);
        return 1;
      }
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(step.c_str())));
    }
  }
  return 0;
}
