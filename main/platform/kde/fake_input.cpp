#include "platform/kde/fake_input.h"

#include "fake-input-client-protocol.h"

#include <wayland-client.h>

#include <algorithm>
#include <cstring>

namespace tarry::platform::kde {

struct FakeInput::Impl {
  wl_display* display = nullptr;
  wl_registry* registry = nullptr;
  org_kde_kwin_fake_input* input = nullptr;
  std::uint32_t version = 0;

  ~Impl() {
    if (input) org_kde_kwin_fake_input_destroy(input);
    if (registry) wl_registry_destroy(registry);
    if (display) wl_display_disconnect(display);
  }

  static void global(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
                     std::uint32_t version) {
    auto* self = static_cast<Impl*>(data);
    if (std::strcmp(interface, org_kde_kwin_fake_input_interface.name) != 0 || self->input) return;
    self->version = std::min<std::uint32_t>(version, 4);
    self->input = static_cast<org_kde_kwin_fake_input*>(
        wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, self->version));
  }
  static void globalRemove(void*, wl_registry*, std::uint32_t) {}
};

namespace {
const wl_registry_listener kRegistryListener = {&FakeInput::Impl::global, &FakeInput::Impl::globalRemove};
}  // namespace

FakeInput::FakeInput(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
FakeInput::~FakeInput() = default;

std::unique_ptr<FakeInput> FakeInput::open(std::string& error) {
  auto impl = std::make_unique<Impl>();
  impl->display = wl_display_connect(nullptr);
  if (!impl->display) {
    error = "cannot connect to the Wayland display";
    return nullptr;
  }
  impl->registry = wl_display_get_registry(impl->display);
  wl_registry_add_listener(impl->registry, &kRegistryListener, impl.get());
  wl_display_roundtrip(impl->display);
  if (!impl->input) {
    error =
        "KWin does not offer this program its fake input (org_kde_kwin_fake_input); its desktop file "
        "must declare X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input";
    return nullptr;
  }
  if (impl->version < ORG_KDE_KWIN_FAKE_INPUT_KEYBOARD_KEY_SINCE_VERSION) {
    error = "KWin's fake input is too old to press keys (version " + std::to_string(impl->version) + ")";
    return nullptr;
  }
  org_kde_kwin_fake_input_authenticate(impl->input, "Tarry",
                                       "types a held Ctrl+W or Ctrl+Shift+Q into the app");
  if (wl_display_roundtrip(impl->display) < 0) {
    error = "KWin refused the fake input";
    return nullptr;
  }
  return std::unique_ptr<FakeInput>(new FakeInput(std::move(impl)));
}

bool FakeInput::key(std::uint32_t evdevCode, bool press) {
  org_kde_kwin_fake_input_keyboard_key(
      impl_->input, evdevCode, press ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
  // NOTE: KWin answers the round trip after it has handled the requests before it, so the key has
  // reached the focused client (or a shortcut) when this returns.
  return wl_display_roundtrip(impl_->display) >= 0;
}

}  // namespace tarry::platform::kde
