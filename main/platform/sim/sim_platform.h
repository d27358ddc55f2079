#pragma once

#include "platform/platform.h"
#include "platform/sim/journal.h"
#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/memory_file_system.h"
#include "platform/sim/sim_event_tap.h"
#include "platform/sim/sim_http.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/sim/sim_services.h"
#include "platform/sim/sim_workspace.h"

namespace tarry::platform::sim {

/// Every simulated service, wired together, with one journal on the virtual clock.
struct SimPlatform {
  SimMainLoop loop;
  Journal journal{[this] { return loop.uptime(); }};
  MemoryDefaultsStore defaults;
  SimEventTap tap{&journal};
  SimWorkspace workspace{&journal};
  SimSound sound{&journal};
  SimActivity activity;
  SimHttp http;
  SimLoginItems loginItems;
  SimAppearance appearance;
  MemoryFileSystem files;

  [[nodiscard]] Services services() {
    return Services{loop, defaults, tap, workspace, sound, activity, http, loginItems, appearance, files};
  }
};

}  // namespace tarry::platform::sim
