#include "platform/wayland/virtual_keyboard.h"

#include "platform/event_tap.h"
#include "virtual-keyboard-unstable-v1-client-protocol.h"

#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

#include <chrono>
#include <cstring>
#include <map>

namespace tarry::platform::wayland {

struct VirtualKeyboard::Impl {
  wl_display* display = nullptr;
  wl_registry* registry = nullptr;
  wl_seat* seat = nullptr;
  zwp_virtual_keyboard_manager_v1* manager = nullptr;
  zwp_virtual_keyboard_v1* keyboard = nullptr;
  xkb_context* context = nullptr;
  xkb_keymap* keymap = nullptr;
  std::map<std::uint32_t, std::uint32_t> keycodes;  // keysym → evdev code
  xkb_mod_mask_t ctrl = 0, shift = 0, alt = 0, super = 0;

  ~Impl() {
    if (keyboard) zwp_virtual_keyboard_v1_destroy(keyboard);
    if (manager) zwp_virtual_keyboard_manager_v1_destroy(manager);
    if (seat) wl_seat_destroy(seat);
    if (registry) wl_registry_destroy(registry);
    if (display) wl_display_disconnect(display);
    if (keymap) xkb_keymap_unref(keymap);
    if (context) xkb_context_unref(context);
  }

  static void global(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
                     std::uint32_t /*version*/) {
    auto* self = static_cast<Impl*>(data);
    if (std::strcmp(interface, wl_seat_interface.name) == 0 && !self->seat) {
      self->seat = static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
    } else if (std::strcmp(interface, zwp_virtual_keyboard_manager_v1_interface.name) == 0) {
      self->manager = static_cast<zwp_virtual_keyboard_manager_v1*>(
          wl_registry_bind(registry, name, &zwp_virtual_keyboard_manager_v1_interface, 1));
    }
  }
  static void globalRemove(void*, wl_registry*, std::uint32_t) {}

  xkb_mod_mask_t mask(std::uint64_t flags) const {
    xkb_mod_mask_t out = 0;
    if (flags & kFlagCommand) out |= ctrl;
    if (flags & kFlagShift) out |= shift;
    if (flags & kFlagOption) out |= alt;
    if (flags & kFlagControl) out |= super;
    return out;
  }
};

namespace {

const wl_registry_listener kRegistryListener = {&VirtualKeyboard::Impl::global,
                                                &VirtualKeyboard::Impl::globalRemove};

xkb_mod_mask_t modBit(xkb_keymap* keymap, const char* name) {
  const xkb_mod_index_t index = xkb_keymap_mod_get_index(keymap, name);
  return index == XKB_MOD_INVALID ? 0 : (1U << index);
}

std::uint32_t nowMs() {
  return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

}  // namespace

VirtualKeyboard::VirtualKeyboard(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
VirtualKeyboard::~VirtualKeyboard() = default;

std::unique_ptr<VirtualKeyboard> VirtualKeyboard::open(std::string& error) {
  auto impl = std::make_unique<Impl>();
  impl->display = wl_display_connect(nullptr);
  if (!impl->display) {
    error = "cannot connect to the Wayland display";
    return nullptr;
  }
  impl->registry = wl_display_get_registry(impl->display);
  wl_registry_add_listener(impl->registry, &kRegistryListener, impl.get());
  wl_display_roundtrip(impl->display);
  if (!impl->seat || !impl->manager) {
    error = "the compositor offers no virtual keyboard (zwp_virtual_keyboard_manager_v1)";
    return nullptr;
  }
  impl->context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  xkb_rule_names names{};  // empty: XKB_DEFAULT_* from the environment, else the system default
  impl->keymap =
      impl->context ? xkb_keymap_new_from_names(impl->context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS) : nullptr;
  if (!impl->keymap) {
    error = "xkbcommon could not build a keymap";
    return nullptr;
  }
  impl->ctrl = modBit(impl->keymap, XKB_MOD_NAME_CTRL);
  impl->shift = modBit(impl->keymap, XKB_MOD_NAME_SHIFT);
  impl->alt = modBit(impl->keymap, XKB_MOD_NAME_ALT);
  impl->super = modBit(impl->keymap, XKB_MOD_NAME_LOGO);
  // The first key of the first layout, at its base level, that types each keysym.
  for (xkb_keycode_t code = xkb_keymap_max_keycode(impl->keymap);
       code >= xkb_keymap_min_keycode(impl->keymap) && code > 8; --code) {
    const xkb_keysym_t* syms = nullptr;
    const int count = xkb_keymap_key_get_syms_by_level(impl->keymap, code, 0, 0, &syms);
    for (int i = 0; i < count; ++i) impl->keycodes[syms[i]] = code - 8;
  }

  char* text = xkb_keymap_get_as_string(impl->keymap, XKB_KEYMAP_FORMAT_TEXT_V1);
  const std::size_t size = std::strlen(text) + 1;
  const int fd = memfd_create("tarry-keymap", MFD_CLOEXEC);
  const bool written = fd >= 0 && write(fd, text, size) == static_cast<ssize_t>(size);
  std::free(text);
  if (!written) {
    if (fd >= 0) close(fd);
    error = "cannot hand the keymap to the compositor";
    return nullptr;
  }
  impl->keyboard = zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(impl->manager, impl->seat);
  zwp_virtual_keyboard_v1_keymap(impl->keyboard, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, fd,
                                 static_cast<std::uint32_t>(size));
  close(fd);
  if (wl_display_roundtrip(impl->display) < 0) {
    error = "the compositor refused the virtual keyboard";
    return nullptr;
  }
  return std::unique_ptr<VirtualKeyboard>(new VirtualKeyboard(std::move(impl)));
}

bool VirtualKeyboard::key(std::uint32_t keysym, std::uint64_t flags, bool press) {
  const auto found = impl_->keycodes.find(keysym);
  if (found == impl_->keycodes.end()) return false;
  const xkb_mod_mask_t mods = impl_->mask(flags);
  if (press) zwp_virtual_keyboard_v1_modifiers(impl_->keyboard, mods, 0, 0, 0);
  zwp_virtual_keyboard_v1_key(impl_->keyboard, nowMs(), found->second,
                              press ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
  if (!press) zwp_virtual_keyboard_v1_modifiers(impl_->keyboard, 0, 0, 0, 0);
  // NOTE: the compositor answers the round trip after it has handled the requests before it, so
  // the key has reached the focused client (or a binding) when this returns.
  return wl_display_roundtrip(impl_->display) >= 0;
}

}  // namespace tarry::platform::wayland
