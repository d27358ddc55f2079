#include "platform/wayland/keyboard_watch.h"

#include "platform/event_tap.h"
#include "wlr-layer-shell-unstable-v1-client-protocol.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace tarry::platform::wayland {

struct KeyboardWatch::Impl {
  OnModifiers onModifiers;
  wl_display* display = nullptr;
  wl_registry* registry = nullptr;
  wl_compositor* compositor = nullptr;
  wl_shm* shm = nullptr;
  wl_seat* seat = nullptr;
  wl_keyboard* keyboard = nullptr;
  zwlr_layer_shell_v1* shell = nullptr;
  wl_surface* surface = nullptr;
  zwlr_layer_surface_v1* layer = nullptr;
  wl_buffer* pixel = nullptr;
  xkb_context* context = nullptr;
  xkb_keymap* keymap = nullptr;
  xkb_mod_mask_t ctrl = 0, shift = 0, alt = 0, super = 0;
  bool focused = false;

  int wake = -1;
  std::mutex mutex;  // wanted, applied, quit
  std::condition_variable changed;
  bool wanted = false;
  bool applied = false;
  bool quit = false;
  std::thread thread;

  ~Impl() {
    if (thread.joinable()) {
      {
        std::lock_guard lock(mutex);
        quit = true;
      }
      poke();
      thread.join();
    }
    unmap();
    if (pixel) wl_buffer_destroy(pixel);
    if (keyboard) wl_keyboard_release(keyboard);
    if (seat) wl_seat_destroy(seat);
    if (shell) zwlr_layer_shell_v1_destroy(shell);
    if (shm) wl_shm_destroy(shm);
    if (compositor) wl_compositor_destroy(compositor);
    if (registry) wl_registry_destroy(registry);
    if (display) wl_display_disconnect(display);
    if (keymap) xkb_keymap_unref(keymap);
    if (context) xkb_context_unref(context);
    if (wake >= 0) close(wake);
  }

  void poke() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wake, &one, sizeof one);
  }

  // ---- the watch's thread ----

  void map() {
    surface = wl_compositor_create_surface(compositor);
    wl_region* none = wl_compositor_create_region(compositor);
    wl_surface_set_input_region(surface, none);
    wl_region_destroy(none);
    layer = zwlr_layer_shell_v1_get_layer_surface(shell, surface, nullptr, ZWLR_LAYER_SHELL_V1_LAYER_OVERLAY,
                                                  "tarry-keyboard");
    static const zwlr_layer_surface_v1_listener listener = {&Impl::configure, &Impl::closed};
    zwlr_layer_surface_v1_add_listener(layer, &listener, this);
    zwlr_layer_surface_v1_set_size(layer, 1, 1);
    zwlr_layer_surface_v1_set_anchor(layer,
                                     ZWLR_LAYER_SURFACE_V1_ANCHOR_TOP | ZWLR_LAYER_SURFACE_V1_ANCHOR_LEFT);
    zwlr_layer_surface_v1_set_exclusive_zone(layer, -1);
    // 1 asks for the keyboard while the surface is mapped (exclusive on the overlay layer).
    zwlr_layer_surface_v1_set_keyboard_interactivity(layer, 1);
    wl_surface_commit(surface);
    wl_display_roundtrip(display);  // brings the configure, answered in `configure`
  }

  void unmap() {
    if (layer) zwlr_layer_surface_v1_destroy(layer);
    if (surface) wl_surface_destroy(surface);
    layer = nullptr;
    surface = nullptr;
    focused = false;
    if (display) wl_display_roundtrip(display);
  }

  static void configure(void* data, zwlr_layer_surface_v1* layer, std::uint32_t serial, std::uint32_t,
                        std::uint32_t) {
    auto* self = static_cast<Impl*>(data);
    zwlr_layer_surface_v1_ack_configure(layer, serial);
    wl_surface_attach(self->surface, self->pixel, 0, 0);
    wl_surface_damage(self->surface, 0, 0, 1, 1);
    wl_surface_commit(self->surface);
  }
  static void closed(void*, zwlr_layer_surface_v1*) {}

  static void keymapEvent(void* data, wl_keyboard*, std::uint32_t format, std::int32_t fd,
                          std::uint32_t size) {
    auto* self = static_cast<Impl*>(data);
    if (format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1) {
      void* text = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
      if (text != MAP_FAILED) {
        xkb_keymap* map = xkb_keymap_new_from_string(self->context, static_cast<const char*>(text),
                                                     XKB_KEYMAP_FORMAT_TEXT_V1, XKB_KEYMAP_COMPILE_NO_FLAGS);
        munmap(text, size);
        if (map) {
          if (self->keymap) xkb_keymap_unref(self->keymap);
          self->keymap = map;
          const auto bit = [map](const char* name) {
            const xkb_mod_index_t index = xkb_keymap_mod_get_index(map, name);
            return index == XKB_MOD_INVALID ? 0U : (1U << index);
          };
          self->ctrl = bit(XKB_MOD_NAME_CTRL);
          self->shift = bit(XKB_MOD_NAME_SHIFT);
          self->alt = bit(XKB_MOD_NAME_ALT);
          self->super = bit(XKB_MOD_NAME_LOGO);
        }
      }
    }
    close(fd);
  }
  static void enter(void* data, wl_keyboard*, std::uint32_t, wl_surface*, wl_array*) {
    static_cast<Impl*>(data)->focused = true;
  }
  static void leave(void* data, wl_keyboard*, std::uint32_t, wl_surface*) {
    static_cast<Impl*>(data)->focused = false;
  }
  static void key(void*, wl_keyboard*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {}
  static void modifiers(void* data, wl_keyboard*, std::uint32_t, std::uint32_t depressed,
                        std::uint32_t latched, std::uint32_t locked, std::uint32_t) {
    auto* self = static_cast<Impl*>(data);
    if (!self->focused || !self->keymap) return;
    const std::uint32_t held =
        depressed | latched | (locked & ~(self->shift));  // a locked Shift is Caps Lock's
    std::uint64_t flags = 0;
    if (held & self->ctrl) flags |= kFlagCommand;
    if (held & self->shift) flags |= kFlagShift;
    if (held & self->alt) flags |= kFlagOption;
    if (held & self->super) flags |= kFlagControl;
    self->onModifiers(flags);
  }
  static void repeatInfo(void*, wl_keyboard*, std::int32_t, std::int32_t) {}

  static void capabilities(void* data, wl_seat* seat, std::uint32_t caps) {
    auto* self = static_cast<Impl*>(data);
    const bool has = caps & WL_SEAT_CAPABILITY_KEYBOARD;
    if (has && !self->keyboard) {
      self->keyboard = wl_seat_get_keyboard(seat);
      static const wl_keyboard_listener listener = {&Impl::keymapEvent, &Impl::enter,     &Impl::leave,
                                                    &Impl::key,         &Impl::modifiers, &Impl::repeatInfo};
      wl_keyboard_add_listener(self->keyboard, &listener, self);
    } else if (!has && self->keyboard) {
      wl_keyboard_release(self->keyboard);
      self->keyboard = nullptr;
      self->focused = false;
    }
  }
  static void seatName(void*, wl_seat*, const char*) {}

  static void global(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
                     std::uint32_t version) {
    auto* self = static_cast<Impl*>(data);
    if (std::strcmp(interface, wl_compositor_interface.name) == 0) {
      self->compositor = static_cast<wl_compositor*>(
          wl_registry_bind(registry, name, &wl_compositor_interface, std::min<std::uint32_t>(version, 4)));
    } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
      self->shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (std::strcmp(interface, wl_seat_interface.name) == 0 && !self->seat) {
      self->seat = static_cast<wl_seat*>(
          wl_registry_bind(registry, name, &wl_seat_interface, std::min<std::uint32_t>(version, 4)));
    } else if (std::strcmp(interface, zwlr_layer_shell_v1_interface.name) == 0) {
      self->shell = static_cast<zwlr_layer_shell_v1*>(
          wl_registry_bind(registry, name, &zwlr_layer_shell_v1_interface, 1));
    }
  }
  static void globalRemove(void*, wl_registry*, std::uint32_t) {}

  void run() {
    for (;;) {
      bool want = false;
      {
        std::lock_guard lock(mutex);
        if (quit) return;
        want = wanted;
      }
      if (want && !surface) map();
      if (!want && surface) unmap();
      {
        std::lock_guard lock(mutex);
        applied = want;
      }
      changed.notify_all();

      while (wl_display_prepare_read(display) != 0) wl_display_dispatch_pending(display);
      wl_display_flush(display);
      pollfd fds[2] = {{wl_display_get_fd(display), POLLIN, 0}, {wake, POLLIN, 0}};
      if (poll(fds, 2, -1) < 0) {
        wl_display_cancel_read(display);
        continue;
      }
      if (fds[0].revents & POLLIN) {
        wl_display_read_events(display);
      } else {
        wl_display_cancel_read(display);
      }
      if (fds[0].revents & (POLLERR | POLLHUP)) return;
      wl_display_dispatch_pending(display);
      if (fds[1].revents & POLLIN) {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t n = read(wake, &count, sizeof count);
      }
    }
  }
};

KeyboardWatch::KeyboardWatch(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
KeyboardWatch::~KeyboardWatch() = default;

std::unique_ptr<KeyboardWatch> KeyboardWatch::open(OnModifiers onModifiers, std::string& error) {
  auto impl = std::make_unique<Impl>();
  impl->onModifiers = std::move(onModifiers);
  impl->display = wl_display_connect(nullptr);
  if (!impl->display) {
    error = "cannot connect to the Wayland display";
    return nullptr;
  }
  impl->registry = wl_display_get_registry(impl->display);
  static const wl_registry_listener registryListener = {&Impl::global, &Impl::globalRemove};
  wl_registry_add_listener(impl->registry, &registryListener, impl.get());
  wl_display_roundtrip(impl->display);
  if (!impl->compositor || !impl->shm || !impl->seat || !impl->shell) {
    error = "the compositor offers no layer shell (zwlr_layer_shell_v1)";
    return nullptr;
  }
  impl->context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
  // The keyboard comes and goes with the seat's capability (a headless seat has one only while
  // a virtual keyboard exists).
  static const wl_seat_listener seatListener = {&Impl::capabilities, &Impl::seatName};
  wl_seat_add_listener(impl->seat, &seatListener, impl.get());

  // One transparent pixel: a layer surface needs a buffer to be mapped.
  const int fd = memfd_create("tarry-keyboard", MFD_CLOEXEC);
  if (fd < 0 || ftruncate(fd, 4) != 0) {
    if (fd >= 0) close(fd);
    error = "cannot allocate a buffer";
    return nullptr;
  }
  wl_shm_pool* pool = wl_shm_create_pool(impl->shm, fd, 4);
  impl->pixel = wl_shm_pool_create_buffer(pool, 0, 1, 1, 4, WL_SHM_FORMAT_ARGB8888);
  wl_shm_pool_destroy(pool);
  close(fd);
  wl_display_roundtrip(impl->display);

  impl->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  Impl* raw = impl.get();
  impl->thread = std::thread([raw] { raw->run(); });
  return std::unique_ptr<KeyboardWatch>(new KeyboardWatch(std::move(impl)));
}

namespace {

void request(KeyboardWatch::Impl& impl, bool want, bool wait) {
  std::unique_lock lock(impl.mutex);
  if (impl.wanted == want && impl.applied == want) return;
  impl.wanted = want;
  lock.unlock();
  impl.poke();
  if (!wait) return;
  lock.lock();
  // NOTE: bounded, so a compositor that stops answering never stalls the caller for long.
  impl.changed.wait_for(lock, std::chrono::milliseconds(200),
                        [&] { return impl.applied == want || impl.quit; });
}

}  // namespace

void KeyboardWatch::start() { request(*impl_, true, false); }
void KeyboardWatch::stop() { request(*impl_, false, true); }

}  // namespace tarry::platform::wayland
