#include "platform/x11/x11_event_tap.h"
#include "platform/x11/x11_display.h"
#include "platform/x11/xcb_reply.h"

#include "platform/x11/xcb_xkb.h"

#include <xcb/xcb.h>
#include <xcb/xinput.h>
#include <xcb/xtest.h>
#include <xkbcommon/xkbcommon-x11.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

namespace tarry::platform::x11 {
namespace {

using Clock = std::chrono::steady_clock;

// A press this program posted comes back through a grab only in the moment between the injection
// and the regrab; anything later is the user's own.
constexpr auto kOwnEventWindow = std::chrono::milliseconds(200);
// A key-down posted without its key-up gets its grab back after this long.
constexpr double kRegrabAfterSec = 1.0;

constexpr const char* kLostConnection = "lost the connection to the X display";

// Stands for "some device" in the record of keys down when only a core event told.
constexpr std::uint16_t kCoreSource = 0xFFFF;

// Server timestamps wrap every 49.7 days; compare them as a signed difference.
bool earlier(xcb_timestamp_t a, xcb_timestamp_t b) { return static_cast<std::int32_t>(b - a) > 0; }

/// Each modifier flag of `KeyEvent::flags` with the X modifier mask that gives it.
std::array<std::pair<std::uint64_t, std::uint16_t>, 4> modifierMasks(const Keymap& map) {
  return {{{kFlagCommand, XCB_MOD_MASK_CONTROL},
           {kFlagShift, XCB_MOD_MASK_SHIFT},
           {kFlagOption, map.altMask()},
           {kFlagControl, map.superMask()}}};
}

std::string describeMods(std::uint16_t mods) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%x", mods);
  return buffer;
}

}  // namespace

class X11EventTap::Session final : public std::enable_shared_from_this<Session> {
 public:
  Session(MainLoop& loop, double answerTimeout) : loop_(loop), answerTimeout_(answerTimeout) {}
  ~Session() {
    stopTap();
    if (connection_) xcb_disconnect(connection_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  bool open(const std::string& display, std::string& error);
  bool startTap(Callback callback, std::string& error);
  void stopTap();
  void enable() { enabled_ = true; }
  void post(const KeyEvent& event);

  [[nodiscard]] std::vector<KeyGrab> grabs() const {
    std::lock_guard lock(grabMutex_);
    return tapped_ ? grabs_ : std::vector<KeyGrab>{};
  }
  [[nodiscard]] int rebuilds() const { return rebuilds_.load(); }
  [[nodiscard]] bool tapped() const { return tapped_.load(); }
  [[nodiscard]] std::string error() const {
    std::lock_guard lock(errorMutex_);
    return error_;
  }
  /// The connection broke: the server went away or closed it (a client killed it, a request it
  /// refused).
  [[nodiscard]] bool lost() const { return connection_ && xcb_connection_has_error(connection_) != 0; }
  [[nodiscard]] std::string problem() const {
    if (lost()) return kLostConnection;
    std::lock_guard lock(errorMutex_);
    return grabProblem_;
  }

 private:
  struct Pending {
    std::uint64_t id = 0;
    xcb_keycode_t keycode = 0;
    std::uint64_t flags = 0;  // the press's modifiers, as `KeyEvent::flags`
    Clock::time_point deadline;
  };

  std::shared_ptr<const Keymap> keymap() const {
    std::lock_guard lock(keymapMutex_);
    return keymap_;
  }
  bool isPending(std::uint64_t id) const {  // needs `pendingMutex_`
    return std::any_of(pending_.begin(), pending_.end(), [&](const Pending& p) { return p.id == id; });
  }
  void setError(std::string text) {
    std::lock_guard lock(errorMutex_);
    error_ = std::move(text);
  }

  // Grabs; need `grabMutex_` held.
  bool placeGrabs(const std::vector<KeyGrab>& grabs, std::string& error);
  void removeGrabs(const std::vector<KeyGrab>& grabs);
  void liftGrab(xcb_keycode_t keycode);
  void restoreGrab(xcb_keycode_t keycode);

  // Reader thread.
  void readLoop();
  void handle(xcb_generic_event_t* event, bool& rebuild, bool& stop);
  void onKey(const xcb_key_press_event_t* key, bool press);
  void onRaw(const xcb_ge_generic_event_t* event);
  void rebuild();
  bool downBefore(xcb_keycode_t keycode, xcb_timestamp_t time);
  void noteCoreKey(xcb_keycode_t keycode, xcb_timestamp_t time, bool press);
  bool takeOwnEvent(xcb_keycode_t keycode);

  // Watchdog thread.
  void watchLoop();

  // Main thread.
  void dispatch(KeyEvent event, std::uint64_t id, bool press, bool activating);
  void deliver(const KeyEvent& event, std::uint64_t id, bool press, bool activating);
  void inject(const KeyEvent& event);

  // Any thread: the main thread answers a press, the reader thread a press that comes while the tap
  // is off, the watchdog a press the main thread did not answer in time.
  void answer(std::uint64_t id, TapVerdict verdict);
  void passThrough(std::uint64_t id, xcb_keycode_t keycode, std::uint64_t flags);

  MainLoop& loop_;
  const double answerTimeout_;

  xcb_connection_t* connection_ = nullptr;
  xcb_window_t root_ = 0;
  xcb_window_t wakeWindow_ = 0;
  std::int32_t keyboardDevice_ = -1;
  std::uint8_t xkbEventBase_ = 0;
  std::uint8_t xinputOpcode_ = 0;  // 0: no XInput 2 raw events

  mutable std::mutex keymapMutex_;
  std::shared_ptr<const Keymap> keymap_;

  mutable std::mutex grabMutex_;  // grabs_, lifted_, tapped_ (writes)
  std::vector<KeyGrab> grabs_;
  std::set<xcb_keycode_t> lifted_;
  std::atomic<bool> tapped_{false};
  std::atomic<bool> enabled_{false};
  std::atomic<int> rebuilds_{0};

  mutable std::mutex errorMutex_;  // error_, grabProblem_
  std::string error_;
  std::string grabProblem_;  // the last regrab was refused

  // The press waiting for an answer, and the state of the grab it activated.
  std::mutex pendingMutex_;  // pending_, grabActive_, grabKey_, grabId_, stopping_, nextId_
  std::condition_variable pendingChanged_;
  // Oldest first. NOTE: several can wait at once: a quick second press after the first one's key
  // went up activates a new grab before the first is answered.
  std::deque<Pending> pending_;
  bool grabActive_ = false;
  xcb_keycode_t grabKey_ = 0;
  std::uint64_t grabId_ = 0;  // the press that activated the grab
  bool stopping_ = false;
  std::uint64_t nextId_ = 0;

  // Without XInput 2: the keys seen going down through the grab and not yet seen going up.
  std::set<xcb_keycode_t> coreDown_;  // under pendingMutex_

  // Reader thread only: which keys are down, per source device, since when (server time).
  std::map<std::pair<std::uint16_t, xcb_keycode_t>, xcb_timestamp_t> down_;

  std::mutex ownMutex_;  // own_
  std::vector<std::pair<xcb_keycode_t, Clock::time_point>> own_;

  // Main thread only.
  std::shared_ptr<Callback> callback_;
  bool inCallback_ = false;
  std::vector<KeyEvent> deferred_;
  std::map<xcb_keycode_t, std::vector<xcb_keycode_t>> pressedModifiers_;
  std::map<xcb_keycode_t, Scheduled> regrabTimers_;

  std::thread reader_;
  std::thread watchdog_;
};

bool X11EventTap::Session::open(const std::string& display, std::string& error) {
  connection_ = connectToDisplay(display, root_, error);
  if (!connection_) return false;

  std::uint8_t xkbError = 0;
  if (!xkb_x11_setup_xkb_extension(connection_, XKB_X11_MIN_MAJOR_XKB_VERSION,
                                   XKB_X11_MIN_MINOR_XKB_VERSION, XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS,
                                   nullptr, nullptr, &xkbEventBase_, &xkbError)) {
    error = "the X server lacks the XKEYBOARD extension";
    return false;
  }
  keyboardDevice_ = xkb_x11_get_core_keyboard_device_id(connection_);

  const xcb_query_extension_reply_t* xtest = xcb_get_extension_data(connection_, &xcb_test_id);
  if (!xtest || !xtest->present) {
    error = "the X server lacks the XTEST extension";
    return false;
  }

  // Without detectable auto-repeat the server reports a held key as release/press pairs, and
  // the first fake release would end a hold. Events that come through a grab carry XKB's grab
  // state, which leaves out the group (and locked modifiers); the lookup state tells which
  // layout the key was typed in.
  constexpr std::uint32_t wantedFlags =
      XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT | XCB_XKB_PER_CLIENT_FLAG_LOOKUP_STATE_WHEN_GRABBED;
  XPtr<xcb_xkb_per_client_flags_reply_t> flags(xcb_xkb_per_client_flags_reply(
      connection_,
      xcb_xkb_per_client_flags(connection_, XCB_XKB_ID_USE_CORE_KBD, wantedFlags, wantedFlags, 0, 0, 0),
      nullptr));
  if (!flags || !(flags->value & XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT)) {
    error = "the X server does not offer detectable auto-repeat";
    return false;
  }

  // Raw key events reach every client whatever the grabs (XInput 2.1 and later), so they tell when
  // a key that was let through to another client goes up again.
  const xcb_query_extension_reply_t* xinput = xcb_get_extension_data(connection_, &xcb_input_id);
  if (xinput && xinput->present) {
    XPtr<xcb_input_xi_query_version_reply_t> version(xcb_input_xi_query_version_reply(
        connection_, xcb_input_xi_query_version(connection_, 2, 2), nullptr));
    if (version && (version->major_version > 2 ||
                    (version->major_version == 2 && version->minor_version >= 1))) {
      xinputOpcode_ = xinput->major_opcode;
    }
  }

  std::string keymapError;
  std::shared_ptr<const Keymap> map = Keymap::load(connection_, keymapError);
  if (!map) {
    error = keymapError;
    return false;
  }
  keymap_ = std::move(map);

  wakeWindow_ = xcb_generate_id(connection_);
  xcb_create_window(connection_, 0, wakeWindow_, root_, -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                    XCB_COPY_FROM_PARENT, 0, nullptr);
  // Named, so that the connection behind the grabs can be told apart (xprop, xkill -id).
  constexpr std::string_view kWakeName = "Tarry keyboard guard";
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, wakeWindow_, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                      kWakeName.size(), kWakeName.data());
  xcb_flush(connection_);
  return true;
}

bool X11EventTap::Session::placeGrabs(const std::vector<KeyGrab>& grabs, std::string& error) {
  std::vector<std::pair<xcb_void_cookie_t, const KeyGrab*>> cookies;
  cookies.reserve(grabs.size());
  for (const KeyGrab& grab : grabs) {
    if (lifted_.count(grab.keycode)) continue;
    cookies.emplace_back(xcb_grab_key_checked(connection_, 0, root_, grab.modifiers, grab.keycode,
                                              XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
                         &grab);
  }
  bool ok = true;
  for (const auto& [cookie, grab] : cookies) {
    XPtr<xcb_generic_error_t> failure(xcb_request_check(connection_, cookie));
    if (failure && ok) {
      ok = false;
      error = "another X client already grabs " + grab->combination + " (keycode " +
              std::to_string(grab->keycode) + ", modifiers " + describeMods(grab->modifiers) + ")";
    }
  }
  return ok;
}

void X11EventTap::Session::removeGrabs(const std::vector<KeyGrab>& grabs) {
  for (const KeyGrab& grab : grabs) {
    if (lifted_.count(grab.keycode)) continue;
    xcb_ungrab_key(connection_, grab.keycode, root_, grab.modifiers);
  }
}

void X11EventTap::Session::liftGrab(xcb_keycode_t keycode) {
  std::lock_guard lock(grabMutex_);
  if (!tapped_ || !lifted_.insert(keycode).second) return;
  for (const KeyGrab& grab : grabs_) {
    if (grab.keycode == keycode) xcb_ungrab_key(connection_, keycode, root_, grab.modifiers);
  }
}

void X11EventTap::Session::restoreGrab(xcb_keycode_t keycode) {
  std::lock_guard lock(grabMutex_);
  if (!lifted_.erase(keycode) || !tapped_) return;
  for (const KeyGrab& grab : grabs_) {
    if (grab.keycode == keycode) {
      xcb_grab_key(connection_, 0, root_, grab.modifiers, keycode, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
    }
  }
}

bool X11EventTap::Session::startTap(Callback callback, std::string& error) {
  if (tapped_) {
    error = "a tap is already installed";
    return false;
  }
  {
    std::lock_guard lock(grabMutex_);
    std::vector<KeyGrab> wanted = keymap()->grabs();
    if (!placeGrabs(wanted, error)) {
      removeGrabs(wanted);
      xcb_flush(connection_);
      return false;
    }
    grabs_ = std::move(wanted);
    tapped_ = true;
  }

  const std::uint16_t xkbEvents = XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
  const std::uint16_t mapParts = XCB_XKB_MAP_PART_KEY_TYPES | XCB_XKB_MAP_PART_KEY_SYMS |
                                 XCB_XKB_MAP_PART_MODIFIER_MAP | XCB_XKB_MAP_PART_EXPLICIT_COMPONENTS |
                                 XCB_XKB_MAP_PART_KEY_ACTIONS | XCB_XKB_MAP_PART_VIRTUAL_MODS |
                                 XCB_XKB_MAP_PART_VIRTUAL_MOD_MAP;
  xcb_xkb_select_events_details_t details{};
  details.affectNewKeyboard = XCB_XKB_NKN_DETAIL_KEYCODES;
  details.newKeyboardDetails = XCB_XKB_NKN_DETAIL_KEYCODES;
  xcb_xkb_select_events_aux(connection_, static_cast<xcb_xkb_device_spec_t>(keyboardDevice_), xkbEvents, 0,
                            0, mapParts, mapParts, &details);
  if (xinputOpcode_) {
    struct {
      xcb_input_event_mask_t head;
      std::uint32_t bits;
    } mask{};
    mask.head.deviceid = XCB_INPUT_DEVICE_ALL_MASTER;
    mask.head.mask_len = 1;
    mask.bits = XCB_INPUT_XI_EVENT_MASK_RAW_KEY_PRESS | XCB_INPUT_XI_EVENT_MASK_RAW_KEY_RELEASE;
    xcb_input_xi_select_events(connection_, root_, 1, &mask.head);
  }
  xcb_flush(connection_);

  callback_ = std::make_shared<Callback>(std::move(callback));
  enabled_ = false;
  {
    std::lock_guard lock(pendingMutex_);
    stopping_ = false;
    pending_.clear();
    grabActive_ = false;
  }
  reader_ = std::thread([this] { readLoop(); });
  watchdog_ = std::thread([this] { watchLoop(); });
  return true;
}

void X11EventTap::Session::stopTap() {
  if (!reader_.joinable() && !tapped_) return;
  callback_.reset();
  enabled_ = false;
  {
    std::lock_guard lock(grabMutex_);
    removeGrabs(grabs_);
    grabs_.clear();
    tapped_ = false;
  }
  {
    std::lock_guard lock(pendingMutex_);
    if (grabActive_) xcb_ungrab_keyboard(connection_, XCB_CURRENT_TIME);
    pending_.clear();
    grabActive_ = false;
    stopping_ = true;
  }
  pendingChanged_.notify_all();
  // Wake the reader, which sleeps in xcb_wait_for_event, with a message to our own window.
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = wakeWindow_;
  message.type = XCB_ATOM_NONE;
  xcb_send_event(connection_, 0, wakeWindow_, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&message));
  xcb_flush(connection_);
  if (reader_.joinable()) reader_.join();
  if (watchdog_.joinable()) watchdog_.join();
  regrabTimers_.clear();
  pressedModifiers_.clear();
  deferred_.clear();
  std::lock_guard lock(grabMutex_);
  lifted_.clear();
}

// ---- Reader thread ----

void X11EventTap::Session::readLoop() {
  for (;;) {
    xcb_generic_event_t* first = xcb_wait_for_event(connection_);
    if (!first) {
      setError(kLostConnection);
      return;
    }
    bool rebuildNeeded = false;
    bool stop = false;
    // Everything already read is handled before a rebuild, so a burst of keymap notifications
    // (setxkbmap sends several) costs one.
    for (xcb_generic_event_t* event = first; event; event = xcb_poll_for_queued_event(connection_)) {
      XPtr<xcb_generic_event_t> owned(event);
      handle(event, rebuildNeeded, stop);
    }
    if (stop) return;
    if (rebuildNeeded) rebuild();
  }
}

void X11EventTap::Session::handle(xcb_generic_event_t* event, bool& rebuildNeeded, bool& stop) {
  const std::uint8_t type = event->response_type & 0x7F;
  switch (type) {
    case 0:  // an error of a request sent without a check (a regrab); nothing to do
      return;
    case XCB_KEY_PRESS:
      onKey(reinterpret_cast<const xcb_key_press_event_t*>(event), true);
      return;
    case XCB_KEY_RELEASE:
      onKey(reinterpret_cast<const xcb_key_press_event_t*>(event), false);
      return;
    case XCB_MAPPING_NOTIFY:
      if (reinterpret_cast<const xcb_mapping_notify_event_t*>(event)->request != XCB_MAPPING_POINTER) {
        rebuildNeeded = true;
      }
      return;
    case XCB_CLIENT_MESSAGE: {
      std::lock_guard lock(pendingMutex_);
      if (stopping_) stop = true;
      return;
    }
    case XCB_GE_GENERIC:
      if (xinputOpcode_ && reinterpret_cast<const xcb_ge_generic_event_t*>(event)->extension == xinputOpcode_) {
        onRaw(reinterpret_cast<const xcb_ge_generic_event_t*>(event));
      }
      return;
    default:
      break;
  }
  if (type == xkbEventBase_) {
    // XKB puts its own event type in the second byte.
    const std::uint8_t xkbType = reinterpret_cast<const std::uint8_t*>(event)[1];
    if (xkbType == XCB_XKB_NEW_KEYBOARD_NOTIFY || xkbType == XCB_XKB_MAP_NOTIFY) rebuildNeeded = true;
  }
}

void X11EventTap::Session::onRaw(const xcb_ge_generic_event_t* event) {
  const auto* raw = reinterpret_cast<const xcb_input_raw_key_press_event_t*>(event);
  const auto keycode = static_cast<xcb_keycode_t>(raw->detail);
  const std::pair<std::uint16_t, xcb_keycode_t> key{raw->sourceid, keycode};
  if (event->event_type == XCB_INPUT_RAW_KEY_PRESS) {
    down_.emplace(key, raw->time);  // keeps the time of the first press
  } else if (event->event_type == XCB_INPUT_RAW_KEY_RELEASE) {
    down_.erase(key);
  }
}

void X11EventTap::Session::noteCoreKey(xcb_keycode_t keycode, xcb_timestamp_t time, bool press) {
  // The server sends no raw events to the client whose core grab is active; the core events it
  // sends instead keep the record. They do not say which device sent them.
  if (!press) {
    std::erase_if(down_, [&](const auto& entry) { return entry.first.second == keycode; });
    return;
  }
  const bool known = std::any_of(down_.begin(), down_.end(), [&](const auto& e) { return e.first.second == keycode; });
  if (!known) down_.emplace(std::pair<std::uint16_t, xcb_keycode_t>{kCoreSource, keycode}, time);
}

bool X11EventTap::Session::downBefore(xcb_keycode_t keycode, xcb_timestamp_t time) {
  if (!xinputOpcode_) {
    std::lock_guard lock(pendingMutex_);
    return coreDown_.count(keycode) > 0;
  }
  // A repeat finds its key held since an earlier press; a new press brought its own raw press
  // with the same timestamp.
  for (auto it = down_.begin(); it != down_.end(); ++it) {
    if (it->first.second == keycode && earlier(it->second, time)) return true;
  }
  return false;
}

bool X11EventTap::Session::takeOwnEvent(xcb_keycode_t keycode) {
  std::lock_guard lock(ownMutex_);
  const Clock::time_point now = Clock::now();
  std::erase_if(own_, [&](const auto& entry) { return entry.second < now; });
  for (auto it = own_.begin(); it != own_.end(); ++it) {
    if (it->first == keycode) {
      own_.erase(it);
      return true;
    }
  }
  return false;
}

void X11EventTap::Session::onKey(const xcb_key_press_event_t* key, bool press) {
  const std::shared_ptr<const Keymap> map = keymap();
  const xcb_keycode_t keycode = key->detail;
  const std::uint16_t modifier = map->modifierOf(keycode);

  KeyEvent event;
  event.keyCode = map->logicCode(keycode);
  if (modifier != 0) {
    // The state of a key event is the one before it; flags-changed reports the one after.
    event.type = EventType::flagsChanged;
    event.flags = map->flags(press ? (key->state | modifier) : (key->state & ~modifier));
  } else {
    event.type = press ? EventType::keyDown : EventType::keyUp;
    event.flags = map->flags(key->state);
    if (press) {
      event.autorepeat = downBefore(keycode, key->time);
      event.text = map->text(keycode, key->state);
      event.unmodifiedText = map->unmodifiedText(keycode, key->state);
      if (takeOwnEvent(keycode)) event.userData = kOwnEventMarker;
    }
  }
  if (xinputOpcode_) noteCoreKey(keycode, key->time, press);

  std::uint64_t id = 0;
  bool activating = false;
  {
    std::lock_guard lock(pendingMutex_);
    if (!xinputOpcode_) {
      if (press) {
        coreDown_.insert(keycode);
      } else {
        coreDown_.erase(keycode);
      }
    }
    id = ++nextId_;
    if (press && modifier == 0 && !grabActive_) {
      // Not inside an active grab, so this press activated a passive one (or came in the moment
      // before the server saw a grab lifted). The grab is asynchronous: the keyboard goes on, only
      // the keys of the next moment come here, and the server ends the grab when the key goes up,
      // whatever this process does; a stopped process cannot hold the keyboard.
      activating = true;
      grabActive_ = true;
      grabKey_ = keycode;
      grabId_ = id;
      pending_.push_back(Pending{id, keycode, event.flags,
                                 Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                    std::chrono::duration<double>(answerTimeout_))});
    } else if (!press && grabActive_ && keycode == grabKey_) {
      grabActive_ = false;  // the server ends a key grab when its key goes up
    }
  }
  if (activating) pendingChanged_.notify_all();

  if (!enabled_ || !tapped_) {
    if (activating) answer(id, TapVerdict::pass);
    return;
  }
  dispatch(std::move(event), id, press, activating);
}

void X11EventTap::Session::rebuild() {
  std::string error;
  std::shared_ptr<const Keymap> map = Keymap::load(connection_, error);
  if (!map) {
    setError("keymap change: " + error);
    return;
  }
  {
    std::lock_guard lock(grabMutex_);
    if (tapped_) {
      std::vector<KeyGrab> wanted = map->grabs();
      removeGrabs(grabs_);
      const bool placed = placeGrabs(wanted, error);
      if (!placed) setError("keymap change: " + error);
      {
        std::lock_guard errorLock(errorMutex_);
        grabProblem_ = placed ? std::string() : error;
      }
      grabs_ = std::move(wanted);
    }
    std::lock_guard keymapLock(keymapMutex_);
    keymap_ = std::move(map);
  }
  xcb_flush(connection_);
  ++rebuilds_;
}

// ---- Watchdog thread ----

void X11EventTap::Session::watchLoop() {
  std::unique_lock lock(pendingMutex_);
  while (!stopping_) {
    if (pending_.empty()) {
      pendingChanged_.wait(lock);
      continue;
    }
    if (Clock::now() < pending_.front().deadline) {
      pendingChanged_.wait_until(lock, pending_.front().deadline);
      continue;
    }
    // The main loop is stuck: let the presses through (all wait behind the same main loop), and
    // stop diverting keys to a program that does not answer.
    std::vector<std::uint64_t> ids;
    for (const Pending& p : pending_) ids.push_back(p.id);
    enabled_ = false;
    lock.unlock();
    for (const std::uint64_t id : ids) answer(id, TapVerdict::pass);
    KeyEvent disabled;
    disabled.type = EventType::tapDisabledByTimeout;
    dispatch(disabled, 0, false, false);
    lock.lock();
  }
}

// ---- Main thread ----

void X11EventTap::Session::dispatch(KeyEvent event, std::uint64_t id, bool press, bool activating) {
  loop_.dispatchMain([weak = weak_from_this(), event = std::move(event), id, press, activating] {
    if (auto self = weak.lock()) self->deliver(event, id, press, activating);
  });
}

void X11EventTap::Session::deliver(const KeyEvent& event, std::uint64_t id, bool press, bool activating) {
  if (activating) {
    std::lock_guard lock(pendingMutex_);
    // Already let through by the watchdog: the guard never saw it, as with a disabled tap.
    if (!isPending(id)) return;
  }
  const std::shared_ptr<Callback> callback = callback_;
  TapVerdict verdict = TapVerdict::pass;
  if (callback && *callback) {
    inCallback_ = true;
    verdict = (*callback)(event);
    inCallback_ = false;
  }
  // NOTE: a press inside a grab that stays active (keys typed during a hold) has no answer: the
  // grab keeps it from the client either way.
  if (press && activating) answer(id, verdict);
  std::vector<KeyEvent> held;
  held.swap(deferred_);
  for (const KeyEvent& posted : held) inject(posted);
}

void X11EventTap::Session::answer(std::uint64_t id, TapVerdict verdict) {
  Pending press;
  {
    std::lock_guard lock(pendingMutex_);
    const auto it = std::find_if(pending_.begin(), pending_.end(), [&](const Pending& p) { return p.id == id; });
    if (it == pending_.end()) return;
    press = *it;
    pending_.erase(it);
    if (verdict == TapVerdict::pass && !xinputOpcode_) coreDown_.erase(press.keycode);
  }
  // Swallowed: the grab stays until the key goes up, so its key-up and the modifier changes come
  // here.
  if (verdict == TapVerdict::pass) passThrough(press.id, press.keycode, press.flags);
}

void X11EventTap::Session::passThrough(std::uint64_t id, xcb_keycode_t keycode, std::uint64_t flags) {
  // The grab took the press from the focused client; give it back with XTest: lift the grab, type
  // the key with the modifiers it was pressed with, and put the grab back. Everything goes out in
  // one flush after one round trip (which keys are down now).
  const std::shared_ptr<const Keymap> map = keymap();
  XPtr<xcb_query_keymap_reply_t> keys(xcb_query_keymap_reply(connection_, xcb_query_keymap(connection_), nullptr));
  const auto isDown = [&](xcb_keycode_t code) { return keys && (keys->keys[code / 8] & (1U << (code % 8))); };
  {
    std::lock_guard lock(pendingMutex_);
    if (grabActive_ && grabId_ == id) {
      xcb_ungrab_keyboard(connection_, XCB_CURRENT_TIME);
      grabActive_ = false;
    }
  }
  liftGrab(keycode);
  // Modifiers the user let go of before the answer (a quick tap while the main loop was busy) are
  // pressed around the key, so the client still gets the combination.
  std::vector<xcb_keycode_t> pressed;
  for (const auto& [flag, mask] : modifierMasks(*map)) {
    if (!(flags & flag)) continue;
    bool held = false;
    for (int code = 8; code < 256 && !held; ++code) {
      held = isDown(static_cast<xcb_keycode_t>(code)) && (map->modifierOf(static_cast<xcb_keycode_t>(code)) & mask);
    }
    const xcb_keycode_t modifierKey = held ? 0 : map->keycodeForModifier(mask);
    if (modifierKey == 0) continue;
    xcb_test_fake_input(connection_, XCB_KEY_PRESS, modifierKey, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    pressed.push_back(modifierKey);
  }
  // When the user's keys come through XTEST too (xdotool, VNC), that device holds the key and a
  // second press would read as a repeat: release it first. For any other keyboard the server
  // ignores this release.
  if (isDown(keycode)) xcb_test_fake_input(connection_, XCB_KEY_RELEASE, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  {
    std::lock_guard lock(ownMutex_);
    own_.emplace_back(keycode, Clock::now() + kOwnEventWindow);
  }
  // A whole key stroke: nothing is left down on the XTEST device whatever the user does next. A
  // key still held repeats into the grab again and each repeat is answered the same way.
  xcb_test_fake_input(connection_, XCB_KEY_PRESS, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  xcb_test_fake_input(connection_, XCB_KEY_RELEASE, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  for (auto it = pressed.rbegin(); it != pressed.rend(); ++it) {
    xcb_test_fake_input(connection_, XCB_KEY_RELEASE, *it, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  }
  // NOTE: the server handles XTEST input while it runs the request, so the key has reached the
  // client before the regrab is in effect.
  restoreGrab(keycode);
  xcb_flush(connection_);
}

void X11EventTap::Session::post(const KeyEvent& event) {
  if (inCallback_) {
    // The grab of the press being answered is still active and would take injected keys; they go
    // out once it is answered.
    deferred_.push_back(event);
    return;
  }
  inject(event);
}

void X11EventTap::Session::inject(const KeyEvent& event) {
  if (event.type != EventType::keyDown && event.type != EventType::keyUp) return;
  const std::shared_ptr<const Keymap> map = keymap();
  const std::optional<xcb_keycode_t> keycode = map->keycodeOf(event.keyCode);
  if (!keycode) return;
  const xcb_keycode_t kc = *keycode;

  if (event.type == EventType::keyDown) {
    {
      // Our active grab would swallow the injected key: end it. The physical key, if still held,
      // then goes to the focused client like any key.
      std::lock_guard lock(pendingMutex_);
      if (grabActive_) {
        xcb_ungrab_keyboard(connection_, XCB_CURRENT_TIME);
        grabActive_ = false;
      }
    }
    liftGrab(kc);

    // Press the modifiers the event asks for that the user is not holding.
    std::vector<xcb_keycode_t>& pressed = pressedModifiers_[kc];
    XPtr<xcb_query_keymap_reply_t> keys(
        xcb_query_keymap_reply(connection_, xcb_query_keymap(connection_), nullptr));
    const auto isDown = [&](std::uint16_t mask) {
      if (!keys) return false;
      for (int code = 8; code < 256; ++code) {
        if ((keys->keys[code / 8] & (1U << (code % 8))) && (map->modifierOf(static_cast<xcb_keycode_t>(code)) & mask)) {
          return true;
        }
      }
      return false;
    };
    for (const auto& [flag, mask] : modifierMasks(*map)) {
      if (!(event.flags & flag) || isDown(mask)) continue;
      const xcb_keycode_t modifierKey = map->keycodeForModifier(mask);
      if (modifierKey == 0) continue;
      xcb_test_fake_input(connection_, XCB_KEY_PRESS, modifierKey, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
      pressed.push_back(modifierKey);
    }
    // A press of a key the XTEST device already holds down reads to XKB as a hardware repeat and
    // is dropped; that is the case when the user's keys come through XTEST too (VNC, xdotool).
    // Releasing it first is harmless otherwise: the server ignores the release of a key this
    // device does not hold.
    if (keys && (keys->keys[kc / 8] & (1U << (kc % 8)))) {
      xcb_test_fake_input(connection_, XCB_KEY_RELEASE, kc, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    }
    {
      std::lock_guard lock(ownMutex_);
      own_.emplace_back(kc, Clock::now() + kOwnEventWindow);
    }
    xcb_test_fake_input(connection_, XCB_KEY_PRESS, kc, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    xcb_flush(connection_);
    // Should the key-up never be posted, the key is guarded again after a moment anyway.
    regrabTimers_[kc] = loop_.after(kRegrabAfterSec, [weak = weak_from_this(), kc] {
      if (auto self = weak.lock()) {
        self->pressedModifiers_.erase(kc);
        self->restoreGrab(kc);
        xcb_flush(self->connection_);
      }
    });
    return;
  }

  xcb_test_fake_input(connection_, XCB_KEY_RELEASE, kc, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  auto pressed = pressedModifiers_.find(kc);
  if (pressed != pressedModifiers_.end()) {
    for (auto it = pressed->second.rbegin(); it != pressed->second.rend(); ++it) {
      xcb_test_fake_input(connection_, XCB_KEY_RELEASE, *it, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    }
    pressedModifiers_.erase(pressed);
  }
  // NOTE: the server handles XTEST input while it runs the request, so the injected events have
  // reached the focused client before the regrab below is in effect.
  restoreGrab(kc);
  regrabTimers_.erase(kc);
  xcb_flush(connection_);
}

// ---- X11EventTap ----

namespace {

class X11TapHandle final : public TapHandle {
 public:
  explicit X11TapHandle(std::shared_ptr<X11EventTap::Session> session) : session_(std::move(session)) {}
  ~X11TapHandle() override;
  void enable() override;

 private:
  std::shared_ptr<X11EventTap::Session> session_;
};

}  // namespace

X11EventTap::X11EventTap(MainLoop& loop) : X11EventTap(loop, Options{}) {}

X11EventTap::X11EventTap(MainLoop& loop, Options options) : loop_(loop), options_(std::move(options)) {}

X11EventTap::~X11EventTap() = default;

bool X11EventTap::isTrusted() {
  if (session_ && session_->lost()) {
    // Its connection broke. Untrusted while a tap still stands on it, whoever asks, so that the
    // poll takes that tap down; after that a new connection is made, and the poll puts the grabs
    // back in place.
    lastError_ = kLostConnection;
    if (session_->tapped()) return false;
    session_.reset();
  }
  if (session_) return true;
  auto session = std::make_shared<Session>(loop_, options_.answerTimeout);
  std::string error;
  if (!session->open(options_.display, error)) {
    lastError_ = error;
    return false;
  }
  session_ = std::move(session);
  lastError_.clear();
  return true;
}

std::unique_ptr<TapHandle> X11EventTap::create(Callback callback) {
  if (!isTrusted()) return nullptr;
  std::string error;
  if (!session_->startTap(std::move(callback), error)) {
    lastError_ = error;
    return nullptr;
  }
  lastError_.clear();
  return std::make_unique<X11TapHandle>(session_);
}

std::string X11EventTap::lastError() const {
  if (!lastError_.empty() || !session_) return lastError_;
  return session_->error();
}

void X11EventTap::post(const KeyEvent& event) {
  if (!isTrusted()) return;
  session_->post(event);
}

std::vector<KeyGrab> X11EventTap::activeGrabs() const { return session_ ? session_->grabs() : std::vector<KeyGrab>{}; }

int X11EventTap::rebuildCount() const { return session_ ? session_->rebuilds() : 0; }

std::string X11EventTap::problem() const { return session_ ? session_->problem() : std::string(); }

X11TapHandle::~X11TapHandle() { session_->stopTap(); }

void X11TapHandle::enable() { session_->enable(); }

}  // namespace tarry::platform::x11
