#include "platform/wayland/layer_shell_hud_panel.h"

#include "wlr-layer-shell-unstable-v1-client-protocol.h"

#include <QImage>
#include <QSocketNotifier>
#include <QWidget>

#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarry::platform::wayland {

/// The Wayland side: one connection of its own, an overlay layer surface while shown.
struct LayerShellHudPanel::Surface {
  wl_display* display = nullptr;
  wl_registry* registry = nullptr;
  wl_compositor* compositor = nullptr;
  wl_shm* shm = nullptr;
  zwlr_layer_shell_v1* shell = nullptr;
  wl_surface* surface = nullptr;
  zwlr_layer_surface_v1* layer = nullptr;
  bool configured = false;
  std::unique_ptr<QSocketNotifier> notifier;

  ~Surface() {
    hide();
    notifier.reset();
    if (shell) zwlr_layer_shell_v1_destroy(shell);
    if (shm) wl_shm_destroy(shm);
    if (compositor) wl_compositor_destroy(compositor);
    if (registry) wl_registry_destroy(registry);
    if (display) wl_display_disconnect(display);
  }

  static void global(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
                     std::uint32_t version) {
    auto* self = static_cast<Surface*>(data);
    if (std::strcmp(interface, wl_compositor_interface.name) == 0) {
      self->compositor = static_cast<wl_compositor*>(
          wl_registry_bind(registry, name, &wl_compositor_interface, std::min<std::uint32_t>(version, 4)));
    } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
      self->shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (std::strcmp(interface, zwlr_layer_shell_v1_interface.name) == 0) {
      self->shell = static_cast<zwlr_layer_shell_v1*>(
          wl_registry_bind(registry, name, &zwlr_layer_shell_v1_interface, 1));
    }
  }
  static void globalRemove(void*, wl_registry*, std::uint32_t) {}

  static void configure(void* data, zwlr_layer_surface_v1* layer, std::uint32_t serial, std::uint32_t,
                        std::uint32_t) {
    zwlr_layer_surface_v1_ack_configure(layer, serial);
    static_cast<Surface*>(data)->configured = true;
  }
  static void closed(void* data, zwlr_layer_surface_v1*) { static_cast<Surface*>(data)->hide(); }

  static void release(void* /*data*/, wl_buffer* buffer) { wl_buffer_destroy(buffer); }

  void show(const QImage& image, int x, int y) {
    if (!surface) {
      surface = wl_compositor_create_surface(compositor);
      // An empty input region: the pointer never hits the panel.
      wl_region* none = wl_compositor_create_region(compositor);
      wl_surface_set_input_region(surface, none);
      wl_region_destroy(none);
      layer = zwlr_layer_shell_v1_get_layer_surface(shell, surface, nullptr,
                                                    ZWLR_LAYER_SHELL_V1_LAYER_OVERLAY, "tarry-hud");
      static const zwlr_layer_surface_v1_listener listener = {&Surface::configure, &Surface::closed};
      zwlr_layer_surface_v1_add_listener(layer, &listener, this);
      zwlr_layer_surface_v1_set_keyboard_interactivity(layer, 0);
      zwlr_layer_surface_v1_set_anchor(layer,
                                       ZWLR_LAYER_SURFACE_V1_ANCHOR_TOP | ZWLR_LAYER_SURFACE_V1_ANCHOR_LEFT);
      zwlr_layer_surface_v1_set_exclusive_zone(layer, -1);
      configured = false;
    }
    zwlr_layer_surface_v1_set_size(layer, static_cast<std::uint32_t>(image.width()),
                                   static_cast<std::uint32_t>(image.height()));
    zwlr_layer_surface_v1_set_margin(layer, y, 0, 0, x);
    if (!configured) {
      // The first commit carries no buffer; the compositor answers with a configure.
      wl_surface_commit(surface);
      wl_display_roundtrip(display);
      if (!configured || !surface) return;
    }
    if (wl_buffer* buffer = bufferOf(image)) {
      wl_surface_attach(surface, buffer, 0, 0);
      wl_surface_damage(surface, 0, 0, image.width(), image.height());
    }
    wl_surface_commit(surface);
    wl_display_flush(display);
  }

  void hide() {
    if (layer) zwlr_layer_surface_v1_destroy(layer);
    if (surface) wl_surface_destroy(surface);
    layer = nullptr;
    surface = nullptr;
    configured = false;
    if (display) wl_display_flush(display);
  }

  wl_buffer* bufferOf(const QImage& image) {
    const int stride = image.width() * 4;
    const int size = stride * image.height();
    const int fd = memfd_create("tarry-hud", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, size) != 0) {
      if (fd >= 0) close(fd);
      return nullptr;
    }
    void* pixels = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (pixels == MAP_FAILED) {
      close(fd);
      return nullptr;
    }
    // NOTE: QImage's premultiplied ARGB32 is WL_SHM_FORMAT_ARGB8888 on a little-endian machine.
    for (int row = 0; row < image.height(); ++row) {
      std::memcpy(static_cast<char*>(pixels) + row * stride, image.constScanLine(row),
                  static_cast<std::size_t>(stride));
    }
    munmap(pixels, static_cast<std::size_t>(size));
    wl_shm_pool* pool = wl_shm_create_pool(shm, fd, size);
    wl_buffer* buffer =
        wl_shm_pool_create_buffer(pool, 0, image.width(), image.height(), stride, WL_SHM_FORMAT_ARGB8888);
    wl_shm_pool_destroy(pool);
    close(fd);
    static const wl_buffer_listener listener = {&Surface::release};
    wl_buffer_add_listener(buffer, &listener, this);
    return buffer;
  }
};

std::unique_ptr<LayerShellHudPanel> LayerShellHudPanel::open(std::string& error) {
  auto surface = std::make_unique<Surface>();
  surface->display = wl_display_connect(nullptr);
  if (!surface->display) {
    error = "cannot connect to the Wayland display";
    return nullptr;
  }
  surface->registry = wl_display_get_registry(surface->display);
  static const wl_registry_listener listener = {&Surface::global, &Surface::globalRemove};
  wl_registry_add_listener(surface->registry, &listener, surface.get());
  wl_display_roundtrip(surface->display);
  if (!surface->compositor || !surface->shm || !surface->shell) {
    error = "the compositor offers no layer shell (zwlr_layer_shell_v1)";
    return nullptr;
  }
  return std::unique_ptr<LayerShellHudPanel>(new LayerShellHudPanel(std::move(surface)));
}

LayerShellHudPanel::LayerShellHudPanel(std::unique_ptr<Surface> surface) : surface_(std::move(surface)) {
  // The compositor's events (configure, buffer release) are read on the Qt event loop.
  surface_->notifier =
      std::make_unique<QSocketNotifier>(wl_display_get_fd(surface_->display), QSocketNotifier::Read);
  QObject::connect(surface_->notifier.get(), &QSocketNotifier::activated, [display = surface_->display] {
    if (wl_display_prepare_read(display) == 0) {
      wl_display_read_events(display);
    }
    wl_display_dispatch_pending(display);
    wl_display_flush(display);
  });
  frames_.setInterval(16);
  QObject::connect(&frames_, &QTimer::timeout, [this] { present(); });
}

LayerShellHudPanel::~LayerShellHudPanel() = default;

void LayerShellHudPanel::present() {
  if (!shown_) return;
  const QImage image = drawer_.snapshot();
  const QPoint at = drawer_.window()->pos();
  surface_->show(image, at.x(), at.y());
}

void LayerShellHudPanel::apply(const HudLayout& layout) {
  drawer_.apply(layout);
  present();
}

void LayerShellHudPanel::setAlpha(double alpha) {
  drawer_.setAlpha(alpha);
  present();
}

void LayerShellHudPanel::animateAlpha(double alpha, double seconds, std::function<void()> completion) {
  drawer_.animateAlpha(alpha, seconds, std::move(completion));
}

void LayerShellHudPanel::setOrigin(Point origin) {
  drawer_.setOrigin(origin);
  present();
}

void LayerShellHudPanel::orderFront() {
  const bool first = !shown_;
  shown_ = true;
  present();
  frames_.start();
  // A hidden measuring aid: with TARRY_DEBUG_HUD_TIMES set, the moment (CLOCK_MONOTONIC, µs) each
  // showing of the panel reached the compositor goes to standard error.
  static const bool timed = std::getenv("TARRY_DEBUG_HUD_TIMES") != nullptr;
  if (timed && first) {
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count();
    std::fprintf(stderr, "hud-shown %lld\n", static_cast<long long>(micros));
  }
}

void LayerShellHudPanel::orderOut() {
  shown_ = false;
  frames_.stop();
  drawer_.orderOut();
  surface_->hide();
}

}  // namespace tarry::platform::wayland
