#pragma once

#include "platform/activity.h"
#include "platform/appearance.h"
#include "platform/defaults_store.h"
#include "platform/event_tap.h"
#include "platform/file_system.h"
#include "platform/http.h"
#include "platform/login_items.h"
#include "platform/main_loop.h"
#include "platform/sound.h"
#include "platform/workspace.h"

namespace tarry::platform {

/// The set of services one backend provides, handed to the logic at start-up.
/// NOTE: every reference must outlive the logic objects built on it.
struct Services {
  MainLoop& loop;
  DefaultsStore& defaults;
  EventTap& tap;
  Workspace& workspace;
  Sound& sound;
  Activity& activity;
  Http& http;
  LoginItems& loginItems;
  Appearance& appearance;
  FileSystem& files;
};

}  // namespace tarry::platform
