#include "platform/gnome/gnome_event_tap.h"

#include <QStringList>

#include <cmath>

namespace tarry::platform::gnome {
namespace {

struct Combination {
  const char* word;
  std::int64_t keyCode;
  std::uint64_t flags;
  char16_t text;
  char16_t unmodified;
};

// "reopen" (Ctrl+Shift+T) is only ever typed, never grabbed.
constexpr Combination kCombinations[] = {
    {"quit", kKeyQ, kFlagCommand, u'q', u'q'},
    {"close", kKeyW, kFlagCommand, u'w', u'w'},
    {"logout", kKeyQ, kFlagCommand | kFlagShift, u'Q', u'q'},
    {"undo", kKeyZ, kFlagCommand | kFlagOption, u'z', u'z'},
    {"reopen", kKeyT, kFlagCommand | kFlagShift, u'T', u't'},
};

// Clutter's modifier bits, as the extension reports them.
constexpr std::uint32_t kShiftMask = 1;
constexpr std::uint32_t kControlMask = 4;
constexpr std::uint32_t kAltMask = 8;

}  // namespace

std::optional<KeyEvent> keyEventOfWord(const std::string& word, bool down) {
  for (const Combination& c : kCombinations) {
    if (word != c.word || word == "reopen") continue;
    KeyEvent event;
    event.type = down ? EventType::keyDown : EventType::keyUp;
    event.keyCode = c.keyCode;
    event.flags = c.flags;
    if (down) {
      event.text = std::u16string(1, c.text);
      event.unmodifiedText = std::u16string(1, c.unmodified);
    }
    return event;
  }
  return std::nullopt;
}

std::uint64_t flagsOfMask(std::uint32_t mask) {
  std::uint64_t flags = 0;
  if (mask & kShiftMask) flags |= kFlagShift;
  if (mask & kControlMask) flags |= kFlagCommand;
  if (mask & kAltMask) flags |= kFlagOption;
  return flags;
}

std::string wordOfPosted(const KeyEvent& event) {
  constexpr std::uint64_t kMods = kFlagCommand | kFlagShift | kFlagOption | kFlagControl;
  for (const Combination& c : kCombinations) {
    if (c.keyCode == event.keyCode && c.flags == (event.flags & kMods)) return c.word;
  }
  return {};
}

std::string extensionMissingText() {
  return "Tarry's GNOME Shell extension is not running. Log out and back in once to finish setting up Tarry";
}

class GnomeEventTap::Session final : public std::enable_shared_from_this<Session> {
 public:
  explicit Session(GnomeShell& shell) : shell_(shell) {}

  void deliverKey(const std::string& word, bool down) {
    std::optional<KeyEvent> event = keyEventOfWord(word, down);
    if (!event) return;
    TapVerdict verdict = TapVerdict::pass;
    if (enabled && callback) verdict = callback(*event);
    if (down) {
      held = *event;
      // The Shell kept the key from the app; letting it through means typing it again.
      if (verdict == TapVerdict::pass) shell_.send(QStringLiteral("Type"), {QString::fromStdString(word)});
    } else if (held && held->keyCode == event->keyCode) {
      held.reset();
    }
  }

  void deliverModifiers(std::uint32_t mask) {
    if (!held) return;
    KeyEvent change;
    change.type = EventType::flagsChanged;
    change.keyCode = held->keyCode;
    change.flags = flagsOfMask(mask);
    // The extension ends the hold when Ctrl goes up: no release of the key follows.
    if (!(change.flags & kFlagCommand)) held.reset();
    if (enabled && callback) callback(change);
  }

  void lost() {
    if (!tapped) return;
    held.reset();
    const bool wasEnabled = enabled;
    enabled = false;
    KeyEvent disabled;
    disabled.type = EventType::tapDisabledByUserInput;
    if (wasEnabled && callback) callback(disabled);
  }

  GnomeShell& shell_;
  Callback callback;
  /// The extension answered Hello since it last appeared on the bus.
  bool greeted = false;
  bool tapped = false;
  bool enabled = false;
  std::optional<KeyEvent> held;
};

namespace {

class GnomeTapHandle final : public TapHandle {
 public:
  GnomeTapHandle(std::shared_ptr<GnomeEventTap::Session> session, std::function<bool()> arm)
      : session_(std::move(session)), arm_(std::move(arm)) {}
  ~GnomeTapHandle() override {
    session_->tapped = false;
    session_->enabled = false;
    session_->callback = nullptr;
    session_->held.reset();
    session_->shell_.call(QStringLiteral("Arm"), {false}, nullptr, 500);
  }
  void enable() override {
    // After the extension came back (a Shell restart, the user enabling it again) its grabs are
    // gone: arm it again.
    if (!session_->enabled && !arm_()) return;
    session_->enabled = true;
  }

 private:
  std::shared_ptr<GnomeEventTap::Session> session_;
  std::function<bool()> arm_;
};

}  // namespace

GnomeEventTap::GnomeEventTap(GnomeShell& shell) : shell_(shell), session_(std::make_shared<Session>(shell)) {
  shell_.onKey = [weak = std::weak_ptr<Session>(session_)](const std::string& word, bool down) {
    if (auto session = weak.lock()) session->deliverKey(word, down);
  };
  shell_.onModifiers = [weak = std::weak_ptr<Session>(session_)](std::uint32_t mask) {
    if (auto session = weak.lock()) session->deliverModifiers(mask);
  };
  shell_.onExtension = [weak = std::weak_ptr<Session>(session_)](bool running) {
    if (auto session = weak.lock(); session && !running) {
      session->greeted = false;
      session->lost();
    }
  };
}

GnomeEventTap::~GnomeEventTap() {
  shell_.onKey = nullptr;
  shell_.onModifiers = nullptr;
  shell_.onExtension = nullptr;
}

bool GnomeEventTap::isTrusted() {
  if (!shell_.extensionRunning()) {
    session_->greeted = false;
    lastError_ = missingText_.empty() ? extensionMissingText() : missingText_;
    return false;
  }
  // Asked again at every poll: the bus says whether the extension is still there, and the Shell
  // itself is not woken for it.
  if (session_->greeted) return true;
  std::string error;
  const std::optional<QVariantList> hello = shell_.call(QStringLiteral("Hello"), {holdLimitMs()}, &error);
  if (!hello || hello->isEmpty()) {
    lastError_ = "Tarry's GNOME Shell extension does not answer: " + error;
    return false;
  }
  const std::string about = hello->first().toString().toStdString();
  if (about.find("\"protocol\":" + std::to_string(kExtensionProtocol)) == std::string::npos) {
    lastError_ = "Tarry's GNOME Shell extension is of another version (" + about +
                 "). Log out and back in once to finish setting up Tarry";
    return false;
  }
  lastError_.clear();
  session_->greeted = true;
  return true;
}

std::uint32_t GnomeEventTap::holdLimitMs() const {
  return static_cast<std::uint32_t>(std::lround(holdLimitSec_ * 1000));
}

void GnomeEventTap::setHoldLimit(double seconds) {
  if (seconds == holdLimitSec_) return;
  holdLimitSec_ = seconds;
  // Said again: the extension takes the limit from every greeting.
  if (session_->greeted) shell_.send(QStringLiteral("Hello"), {holdLimitMs()});
}

bool GnomeEventTap::arm() {
  if (!isTrusted()) return false;
  std::string error;
  const std::optional<QVariantList> refused = shell_.call(QStringLiteral("Arm"), {true}, &error);
  if (!refused) {
    lastError_ = "Tarry's GNOME Shell extension could not grab the keys: " + error;
    return false;
  }
  const QStringList words = refused->isEmpty() ? QStringList() : refused->first().toStringList();
  problem_ = words.isEmpty() ? std::string()
                             : "another program took these keys in GNOME Shell: " +
                                   words.join(QStringLiteral(", ")).toStdString();
  return true;
}

std::unique_ptr<TapHandle> GnomeEventTap::create(Callback callback) {
  if (session_->tapped) {
    lastError_ = "a tap is already installed";
    return nullptr;
  }
  if (!arm()) return nullptr;
  session_->callback = std::move(callback);
  session_->tapped = true;
  session_->enabled = false;
  return std::make_unique<GnomeTapHandle>(session_, [this] { return arm(); });
}

void GnomeEventTap::post(const KeyEvent& event) {
  // The extension types press and release together.
  if (event.type != EventType::keyDown) return;
  const std::string word = wordOfPosted(event);
  if (word.empty()) return;
  shell_.send(QStringLiteral("Type"), {QString::fromStdString(word)});
}

}  // namespace tarry::platform::gnome
