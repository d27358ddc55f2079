#include "platform/x11/x11_keymap.h"

#include "platform/event_tap.h"

#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string_view>

namespace tarry::platform::x11 {
namespace {

// XKB names of the physical keys in the Q, W and Z positions; the evdev keycodes they have on
// every current X server are the fallback when a keymap leaves them unnamed.
constexpr std::string_view kNameQ = "AD01";
constexpr std::string_view kNameW = "AD02";
constexpr std::string_view kNameZ = "AB01";
constexpr xcb_keycode_t kEvdevQ = 24;
constexpr xcb_keycode_t kEvdevW = 25;
constexpr xcb_keycode_t kEvdevZ = 52;

// The core state carries the XKB group in bits 13-14 for clients that enabled XKB.
constexpr std::uint32_t groupOf(std::uint16_t state) { return (state >> 13) & 3U; }

// The lower-cased ASCII character a keysym types, or 0 when it types nothing in 33…126.
char asciiOf(xkb_keysym_t sym) {
  const std::uint32_t cp = xkb_keysym_to_utf32(sym);
  if (cp < 33 || cp > 126) return 0;
  char c = static_cast<char>(cp);
  if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return c;
}

}  // namespace

std::u16string utf16FromUtf8(const std::string& text) {
  std::u16string out;
  std::size_t i = 0;
  while (i < text.size()) {
    const auto b0 = static_cast<unsigned char>(text[i]);
    std::uint32_t cp = 0;
    std::size_t len = 0;
    if (b0 < 0x80) {
      cp = b0;
      len = 1;
    } else if ((b0 & 0xE0) == 0xC0) {
      cp = b0 & 0x1FU;
      len = 2;
    } else if ((b0 & 0xF0) == 0xE0) {
      cp = b0 & 0x0FU;
      len = 3;
    } else if ((b0 & 0xF8) == 0xF0) {
      cp = b0 & 0x07U;
      len = 4;
    } else {
      ++i;
      continue;
    }
    if (i + len > text.size()) break;
    bool ok = true;
    for (std::size_t k = 1; k < len; ++k) {
      const auto b = static_cast<unsigned char>(text[i + k]);
      if ((b & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (b & 0x3FU);
    }
    i += ok ? len : 1;
    if (!ok || cp > 0x10FFFF) continue;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::unique_ptr<Keymap> Keymap::load(xcb_connection_t* connection, std::string& error) {
  std::unique_ptr<Keymap> map(new Keymap());
  map->context_ = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  if (!map->context_) {
    error = "cannot create an XKB context";
    return nullptr;
  }
  const std::int32_t device = xkb_x11_get_core_keyboard_device_id(connection);
  if (device < 0) {
    error = "the X server reports no core keyboard";
    return nullptr;
  }
  map->keymap_ = xkb_x11_keymap_new_from_device(map->context_, connection, device,
                                                XKB_KEYMAP_COMPILE_NO_FLAGS);
  if (!map->keymap_) {
    error = "cannot read the keyboard's keymap";
    return nullptr;
  }
  map->state_ = xkb_state_new(map->keymap_);
  if (!map->state_) {
    error = "cannot create a keyboard state";
    return nullptr;
  }

  const auto named = [&](std::string_view name, xcb_keycode_t fallback) -> xcb_keycode_t {
    const xkb_keycode_t kc = xkb_keymap_key_by_name(map->keymap_, std::string(name).c_str());
    return kc != XKB_KEYCODE_INVALID && kc <= 255 ? static_cast<xcb_keycode_t>(kc) : fallback;
  };
  map->keyQ_ = named(kNameQ, kEvdevQ);
  map->keyW_ = named(kNameW, kEvdevW);
  map->keyZ_ = named(kNameZ, kEvdevZ);

  // Which real modifier Alt, Super, NumLock and ScrollLock live on varies with the keymap; read it
  // from the core modifier mapping and the keysyms on the mapped keys.
  xcb_get_modifier_mapping_reply_t* reply =
      xcb_get_modifier_mapping_reply(connection, xcb_get_modifier_mapping(connection), nullptr);
  if (reply) {
    const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(reply);
    const int perModifier = reply->keycodes_per_modifier;
    for (int mod = 0; mod < 8; ++mod) {
      const auto mask = static_cast<std::uint16_t>(1U << mod);
      for (int k = 0; k < perModifier; ++k) {
        const xcb_keycode_t kc = codes[mod * perModifier + k];
        if (kc == 0) continue;
        map->modifierOf_[kc] |= mask;
        const xkb_layout_index_t layouts = xkb_keymap_num_layouts_for_key(map->keymap_, kc);
        for (xkb_layout_index_t layout = 0; layout < layouts; ++layout) {
          const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(map->keymap_, kc, layout);
          for (xkb_level_index_t level = 0; level < levels; ++level) {
            const xkb_keysym_t* syms = nullptr;
            const int n = xkb_keymap_key_get_syms_by_level(map->keymap_, kc, layout, level, &syms);
            for (int s = 0; s < n; ++s) {
              switch (syms[s]) {
                case XKB_KEY_Alt_L:
                case XKB_KEY_Alt_R:
                case XKB_KEY_Meta_L:
                case XKB_KEY_Meta_R:
                  if (mod >= 3) map->alt_ |= mask;
                  break;
                case XKB_KEY_Super_L:
                case XKB_KEY_Super_R:
                  if (mod >= 3) map->super_ |= mask;
                  break;
                case XKB_KEY_Num_Lock:
                  map->numLock_ |= mask;
                  break;
                case XKB_KEY_Scroll_Lock:
                  map->scrollLock_ |= mask;
                  break;
                default:
                  break;
              }
            }
          }
        }
      }
    }
    std::free(reply);
  }
  // Every common keymap puts Alt on Mod1 and Super on Mod4; use those when the mapping is silent.
  if (map->alt_ == 0) map->alt_ = XCB_MOD_MASK_1;
  if (map->super_ == 0) map->super_ = XCB_MOD_MASK_4;
  return map;
}

Keymap::~Keymap() {
  if (state_) xkb_state_unref(state_);
  if (keymap_) xkb_keymap_unref(keymap_);
  if (context_) xkb_context_unref(context_);
}

std::int64_t Keymap::logicCode(xcb_keycode_t keycode) const {
  if (keycode == keyQ_) return platform::kKeyQ;
  if (keycode == keyW_) return platform::kKeyW;
  if (keycode == keyZ_) return platform::kKeyZ;
  return kOtherKeyBase + keycode;
}

std::optional<xcb_keycode_t> Keymap::keycodeOf(std::int64_t logicCode) const {
  if (logicCode == platform::kKeyQ) return keyQ_;
  if (logicCode == platform::kKeyW) return keyW_;
  if (logicCode == platform::kKeyZ) return keyZ_;
  if (logicCode == platform::kKeyT) {
    // Shortcuts go by the letter typed, so the key that types "t" in the first layout; else the
    // physical T key.
    const xkb_keycode_t lo = std::max<xkb_keycode_t>(xkb_keymap_min_keycode(keymap_), 8);
    const xkb_keycode_t hi = std::min<xkb_keycode_t>(xkb_keymap_max_keycode(keymap_), 255);
    for (xkb_keycode_t kc = lo; kc <= hi; ++kc) {
      const xkb_keysym_t* syms = nullptr;
      if (xkb_keymap_key_get_syms_by_level(keymap_, kc, 0, 0, &syms) == 1 && asciiOf(syms[0]) == 't') {
        return static_cast<xcb_keycode_t>(kc);
      }
    }
    const xkb_keycode_t physical = xkb_keymap_key_by_name(keymap_, "AD05");
    return physical != XKB_KEYCODE_INVALID && physical <= 255 ? static_cast<xcb_keycode_t>(physical)
                                                              : xcb_keycode_t{28};
  }
  if (logicCode >= kOtherKeyBase + 8 && logicCode <= kOtherKeyBase + 255) {
    return static_cast<xcb_keycode_t>(logicCode - kOtherKeyBase);
  }
  return std::nullopt;
}

std::uint64_t Keymap::flags(std::uint16_t state) const {
  std::uint64_t out = 0;
  if (state & XCB_MOD_MASK_SHIFT) out |= platform::kFlagShift;
  if (state & XCB_MOD_MASK_CONTROL) out |= platform::kFlagCommand;
  if (state & alt_) out |= platform::kFlagOption;
  if (state & super_) out |= platform::kFlagControl;
  return out;
}

std::uint16_t Keymap::modifierOf(xcb_keycode_t keycode) const { return modifierOf_[keycode]; }

xcb_keycode_t Keymap::keycodeForModifier(std::uint16_t mask) const {
  for (std::size_t kc = 8; kc < modifierOf_.size(); ++kc) {
    if (modifierOf_[kc] & mask) return static_cast<xcb_keycode_t>(kc);
  }
  return 0;
}

std::u16string Keymap::typed(xcb_keycode_t keycode, std::uint32_t mods, std::uint32_t group) const {
  std::lock_guard lock(stateMutex_);
  // NOTE: the first eight XKB modifier indices are the core ones, in core bit order, so a core
  // mask is a valid XKB mask.
  xkb_state_update_mask(state_, mods, 0, 0, 0, 0, group);
  char buffer[64];
  const int n = xkb_state_key_get_utf8(state_, keycode, buffer, sizeof buffer);
  if (n <= 0) return {};
  std::u16string text = utf16FromUtf8(std::string(buffer, static_cast<std::size_t>(std::min<int>(n, 63))));
  if (text.size() > 4) text.resize(4);
  return text;
}

std::u16string Keymap::text(xcb_keycode_t keycode, std::uint16_t state) const {
  // Ctrl would turn "q" into a control character through XKB's control transformation.
  const std::uint32_t mods = state & 0xFFU & ~static_cast<std::uint32_t>(XCB_MOD_MASK_CONTROL);
  return typed(keycode, mods, groupOf(state));
}

std::u16string Keymap::unmodifiedText(xcb_keycode_t keycode, std::uint16_t state) const {
  return typed(keycode, 0, groupOf(state));
}

std::vector<KeyGrab> Keymap::grabs() const {
  constexpr std::uint16_t ctrl = XCB_MOD_MASK_CONTROL;
  constexpr std::uint16_t shift = XCB_MOD_MASK_SHIFT;
  struct Need {
    std::uint16_t mods;
    const char* name;
  };
  const Need quit{ctrl, "Ctrl+Q"};
  const Need logout{static_cast<std::uint16_t>(ctrl | shift), "Ctrl+Shift+Q"};
  const Need close{ctrl, "Ctrl+W"};
  const Need undo{static_cast<std::uint16_t>(ctrl | alt_), "Ctrl+Alt+Z"};

  std::vector<std::pair<xcb_keycode_t, Need>> base;
  const auto add = [&](xcb_keycode_t kc, char c) {
    const auto push = [&](const Need& need) {
      for (const auto& [k, n] : base) {
        if (k == kc && n.mods == need.mods) return;
      }
      base.emplace_back(kc, need);
    };
    if (c == 'q') {
      push(quit);
      push(logout);
    } else if (c == 'w') {
      push(close);
    } else if (c == 'z') {
      push(undo);
    }
  };

  const xkb_keycode_t lo = std::max<xkb_keycode_t>(xkb_keymap_min_keycode(keymap_), 8);
  const xkb_keycode_t hi = std::min<xkb_keycode_t>(xkb_keymap_max_keycode(keymap_), 255);
  for (xkb_keycode_t kc = lo; kc <= hi; ++kc) {
    const xkb_layout_index_t layouts = xkb_keymap_num_layouts_for_key(keymap_, kc);
    bool typesNothing = layouts == 0;
    for (xkb_layout_index_t layout = 0; layout < layouts; ++layout) {
      const xkb_keysym_t* syms = nullptr;
      const int n = xkb_keymap_key_get_syms_by_level(keymap_, kc, layout, 0, &syms);
      const char c = n == 1 ? asciiOf(syms[0]) : 0;
      if (c == 0) typesNothing = true;
      add(static_cast<xcb_keycode_t>(kc), c);
    }
    // Where a layout types no ASCII character on the physical Q, W or Z key, the guard falls back
    // to the physical key, so that key has to be grabbed too.
    if (typesNothing) {
      if (kc == keyQ_) add(keyQ_, 'q');
      if (kc == keyW_) add(keyW_, 'w');
      if (kc == keyZ_) add(keyZ_, 'z');
    }
  }

  // A passive grab matches the modifier state exactly, so every combination of the lock modifiers
  // (CapsLock, NumLock, ScrollLock) needs a grab of its own.
  std::set<std::uint16_t> lockMasks{XCB_MOD_MASK_LOCK, numLock_, scrollLock_};
  lockMasks.erase(0);
  std::vector<std::uint16_t> locks(lockMasks.begin(), lockMasks.end());
  std::vector<std::uint16_t> variants;
  for (std::size_t subset = 0; subset < (std::size_t{1} << locks.size()); ++subset) {
    std::uint16_t mask = 0;
    for (std::size_t i = 0; i < locks.size(); ++i) {
      if (subset & (std::size_t{1} << i)) mask |= locks[i];
    }
    variants.push_back(mask);
  }

  std::vector<KeyGrab> out;
  for (const auto& [kc, need] : base) {
    for (const std::uint16_t lock : variants) {
      // A lock modifier that shares a bit with the combination would make a duplicate grab.
      if (lock & need.mods) continue;
      out.push_back(KeyGrab{kc, static_cast<std::uint16_t>(need.mods | lock), need.name});
    }
  }
  return out;
}

}  // namespace tarry::platform::x11
