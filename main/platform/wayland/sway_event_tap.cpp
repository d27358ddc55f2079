#include "platform/wayland/sway_event_tap.h"

#include "platform/wayland/keyboard_watch.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/virtual_keyboard.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

namespace tarry::platform::wayland {
namespace {

constexpr char kTag[] = "tarry-guard";

// Sent as a tick to every IPC subscriber once a copy has bound the keys, followed by its pid.
// Bindings belong to the compositor, not to a connection: a copy that hears another copy say this
// (the new copy an update started) leaves the bindings to it.
constexpr char kBoundTick[] = "tarry-guard bound ";
// A copy that stops sends this to itself first: once it comes back, every tick sent before it
// (a newer copy's word included) has been read.
constexpr char kStoppingTick[] = "tarry-guard stopping ";

}  // namespace

const std::vector<SwayCombination>& swayCombinations() {
  static const std::vector<SwayCombination> combinations = {
      {"quit", "Ctrl+q", kKeyQ, kFlagCommand, XKB_KEY_q, u"q"},
      {"close", "Ctrl+w", kKeyW, kFlagCommand, XKB_KEY_w, u"w"},
      {"logout", "Ctrl+Shift+q", kKeyQ, kFlagCommand | kFlagShift, XKB_KEY_q, u"Q"},
      {"undo", "Ctrl+Mod1+z", kKeyZ, kFlagCommand | kFlagOption, XKB_KEY_z, u"z"},
  };
  return combinations;
}

namespace {

// Each combination is bound twice: by its keysym, which follows the letter on every Latin layout
// (Q on a Dvorak keyboard is where Dvorak puts it), and translated to the key that types it in
// the first configured layout (`--to-code`), which is the one that still fires when a Cyrillic,
// Greek or other non-Latin layout is active and the Q key types й: applications take Ctrl+й for
// Ctrl+Q, so the guard must too. When both match, sway runs one of them, and they run the same
// command.
constexpr const char* kForms[] = {"", "--to-code "};

std::string pressBindings(const SwayCombination& c) {
  std::string out;
  for (const char* form : kForms)
    out += std::string("bindsym --no-repeat ") + form + c.keys + " nop " + kTag + " down " + c.word + ";";
  return out;
}

std::string pressUnbindings(const SwayCombination& c) {
  std::string out;
  for (const char* form : kForms) out += std::string("unbindsym --no-repeat ") + form + c.keys + ";";
  return out;
}

}  // namespace

std::string swayBindCommands() {
  std::string out;
  for (const SwayCombination& c : swayCombinations()) {
    out += pressBindings(c);
    for (const char* form : kForms)
      out += std::string("bindsym --release ") + form + c.keys + " nop " + kTag + " up " + c.word + ";";
  }
  return out;
}

std::string swayUnbindCommands() {
  std::string out;
  for (const SwayCombination& c : swayCombinations()) out += pressUnbindings(c);
  return out;
}

std::optional<KeyEvent> keyEventOfBinding(const std::string& command) {
  std::istringstream words(command);
  std::string nop, tag, direction, word;
  if (!(words >> nop >> tag >> direction >> word) || nop != "nop" || tag != kTag) return std::nullopt;
  for (const SwayCombination& c : swayCombinations()) {
    if (c.word != word) continue;
    KeyEvent event;
    event.keyCode = c.keyCode;
    event.flags = c.flags;
    if (direction == "down") {
      event.type = EventType::keyDown;
      event.text = c.text;
      event.unmodifiedText = std::u16string(1, static_cast<char16_t>(c.keysym));
    } else if (direction == "up") {
      event.type = EventType::keyUp;
    } else {
      return std::nullopt;
    }
    return event;
  }
  return std::nullopt;
}

class SwayEventTap::Session final : public std::enable_shared_from_this<Session> {
 public:
  Session(MainLoop& loop, std::string path, std::unique_ptr<SwayIpc> commands)
      : loop_(loop), path_(std::move(path)), commands_(std::move(commands)) {}
  ~Session() { stop(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  bool start(Callback callback, std::string& error);
  void stop();
  void enable();
  void post(const KeyEvent& event);
  [[nodiscard]] std::string error() const {
    std::lock_guard lock(errorMutex_);
    return error_;
  }

 private:
  bool bind(std::string& error);
  void startCleaner();
  void stopCleaner();
  void readLoop(std::shared_ptr<SwayIpc> events);
  void deliver(const KeyEvent& event);
  void rebind();
  void startWatch(const KeyEvent& press);
  void stopWatch();
  void onModifiers(std::uint64_t flags);
  void inject(const SwayCombination* combination, std::uint32_t keysym, std::uint64_t flags, bool press);
  void announce();
  void standDown();
  void keepBindingsForSuccessor();
  void readUntilStopping();
  void setError(std::string text) {
    std::lock_guard lock(errorMutex_);
    error_ = std::move(text);
  }

  MainLoop& loop_;
  const std::string path_;
  std::unique_ptr<SwayIpc> commands_;
  std::shared_ptr<SwayIpc> events_;
  std::thread reader_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> lost_{false};
  // The reader heard a newer copy say it bound the keys.
  std::atomic<bool> successor_{false};
  std::mutex stopMutex_;
  std::condition_variable stopSeen_;
  bool stoppingTickRead_ = false;

  mutable std::mutex errorMutex_;
  std::string error_;

  // The helper that removes the bindings should this process die.
  pid_t cleaner_ = -1;
  int cleanerPipe_ = -1;

  // Main thread only.
  // Another copy bound the keys after this one: they are not this copy's to remove any more.
  bool handedOn_ = false;
  std::shared_ptr<Callback> callback_;
  bool enabled_ = false;
  bool tapped_ = false;
  std::unique_ptr<VirtualKeyboard> keyboard_;
  std::string keyboardError_;
  std::set<std::string> lifted_;  // words whose press binding is lifted
  std::unique_ptr<KeyboardWatch> watch_;
  std::string watchError_;
  std::optional<KeyEvent> watched_;  // the swallowed press whose modifiers are followed
  Scheduled watchLimit_;
};

bool SwayEventTap::Session::bind(std::string& error) {
  // Leftovers of an earlier run that could not remove its own bindings; failures only say that
  // there were none.
  commands_->command(swayUnbindCommands());
  if (!commands_->command(swayBindCommands(), &error)) {
    error = "the compositor refused the key bindings: " + error;
    commands_->command(swayUnbindCommands());
    return false;
  }
  std::string connectError;
  std::unique_ptr<SwayIpc> events = SwayIpc::connect(path_, connectError);
  if (!events || !events->send(SwayIpc::subscribe, R"(["binding","shutdown","workspace","tick"])")) {
    error = events ? "the compositor's IPC socket stopped answering" : connectError;
    commands_->command(swayUnbindCommands());
    return false;
  }
  events_ = std::shared_ptr<SwayIpc>(std::move(events));
  return true;
}

bool SwayEventTap::Session::start(Callback callback, std::string& error) {
  if (tapped_) {
    error = "a tap is already installed";
    return false;
  }
  if (!bind(error)) return false;
  tapped_ = true;
  lost_ = false;
  stopping_ = false;
  enabled_ = false;
  handedOn_ = false;
  successor_ = false;
  callback_ = std::make_shared<Callback>(std::move(callback));
  startCleaner();
  reader_ = std::thread([this, events = events_] { readLoop(events); });
  announce();
  return true;
}

void SwayEventTap::Session::announce() {
  [[maybe_unused]] const auto reply =
      commands_->request(SwayIpc::sendTick, kBoundTick + std::to_string(getpid()));
}

void SwayEventTap::Session::standDown() {
  if (!tapped_ || handedOn_) return;
  enabled_ = false;
  stopWatch();
  keepBindingsForSuccessor();
}

void SwayEventTap::Session::keepBindingsForSuccessor() {
  handedOn_ = true;
  // The helper must not remove the newer copy's bindings when this process ends.
  if (cleanerPipe_ >= 0) {
    const char keep = 'k';
    [[maybe_unused]] const ssize_t written = write(cleanerPipe_, &keep, 1);
  }
  stopCleaner();
}

void SwayEventTap::Session::readUntilStopping() {
  {
    std::lock_guard lock(stopMutex_);
    stoppingTickRead_ = false;
  }
  const std::optional<nlohmann::json> sent =
      commands_->request(SwayIpc::sendTick, kStoppingTick + std::to_string(getpid()));
  // A compositor without ticks sends none: there is nothing to wait for.
  if (!sent || !sent->is_object() || !sent->value("success", false)) return;
  // The compositor queued the tick for every subscriber before it answered: it is on its way.
  std::unique_lock lock(stopMutex_);
  stopSeen_.wait_for(lock, std::chrono::seconds(1), [this] { return stoppingTickRead_; });
}

void SwayEventTap::Session::stop() {
  if (!tapped_) return;
  tapped_ = false;
  enabled_ = false;
  callback_.reset();
  stopping_ = true;
  // An update's new copy may have bound the keys a moment ago; its word must be read before
  // deciding whether the bindings are still this copy's to remove.
  if (events_ && !lost_ && !handedOn_) readUntilStopping();
  if (events_) events_->shutdown();
  if (reader_.joinable()) reader_.join();
  events_.reset();
  stopWatch();
  if (successor_ && !handedOn_) keepBindingsForSuccessor();
  if (!handedOn_) commands_->command(swayUnbindCommands());
  lifted_.clear();
  stopCleaner();
}

void SwayEventTap::Session::enable() {
  if (!tapped_ || handedOn_) return;
  if (lost_) {
    // The socket went away (sway restarted or reloaded under us): bind again on a new one.
    if (reader_.joinable()) reader_.join();
    std::string error;
    std::unique_ptr<SwayIpc> commands = SwayIpc::connect(path_, error);
    if (!commands) {
      setError(error);
      return;
    }
    commands_ = std::move(commands);
    if (!bind(error)) {
      setError(error);
      return;
    }
    lost_ = false;
    lifted_.clear();
    reader_ = std::thread([this, events = events_] { readLoop(events); });
    announce();
  }
  enabled_ = true;
}

void SwayEventTap::Session::rebind() {
  if (!tapped_ || handedOn_) return;
  lifted_.clear();
  std::string error;
  if (!commands_->command(swayBindCommands(), &error))
    setError("the compositor refused the key bindings: " + error);
}

void SwayEventTap::Session::startCleaner() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  // Everything the helper needs is prepared here: after fork() in a threaded process it may only
  // make async-signal-safe calls.
  const std::string payload = swayUnbindCommands();
  std::string message = "i3-ipc";
  const auto length = static_cast<std::uint32_t>(payload.size());
  const std::uint32_t type = SwayIpc::runCommand;
  message.append(reinterpret_cast<const char*>(&length), 4);
  message.append(reinterpret_cast<const char*>(&type), 4);
  message += payload;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.c_str(), std::min(path_.size(), sizeof address.sun_path - 1));

  const pid_t child = fork();
  if (child == 0) {
    // Out of the program's process group, deaf to the signals that end it: the helper outlives it.
    setpgid(0, 0);
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    dup2(fds[0], 3);
    close_range(4, ~0U, 0);
    char byte = 0;
    for (;;) {
      const ssize_t n = read(3, &byte, 1);
      if (n == 0 || (n < 0 && errno != EINTR)) break;
      // A newer copy holds the bindings now.
      if (n == 1 && byte == 'k') _exit(0);
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      [[maybe_unused]] const ssize_t sent = write(fd, message.data(), message.size());
      char reply[256];
      [[maybe_unused]] const ssize_t got = read(fd, reply, sizeof reply);
    }
    _exit(0);
  }
  close(fds[0]);
  if (child < 0) {
    close(fds[1]);
    return;
  }
  cleaner_ = child;
  cleanerPipe_ = fds[1];
}

void SwayEventTap::Session::stopCleaner() {
  if (cleaner_ < 0) return;
  close(cleanerPipe_);
  waitpid(cleaner_, nullptr, 0);
  cleaner_ = -1;
  cleanerPipe_ = -1;
}

void SwayEventTap::Session::readLoop(std::shared_ptr<SwayIpc> events) {
  for (;;) {
    std::optional<SwayIpc::Message> message = events->read();
    if (!message || message->type == SwayIpc::kEventShutdown) break;
    if (!message->body.is_object()) continue;
    if (message->type == SwayIpc::kEventWorkspace &&
        message->body.value("change", std::string()) == "reload") {
      // A configuration reload drops every binding made over the IPC.
      loop_.dispatchMain([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->rebind();
      });
      continue;
    }
    if (message->type == SwayIpc::kEventTick) {
      const std::string payload = message->body.value("payload", std::string());
      const std::string self = std::to_string(getpid());
      if (payload.starts_with(kBoundTick) && payload != kBoundTick + self) {
        successor_ = true;
        loop_.dispatchMain([weak = weak_from_this()] {
          if (auto self = weak.lock()) self->standDown();
        });
      } else if (payload == kStoppingTick + self) {
        std::lock_guard lock(stopMutex_);
        stoppingTickRead_ = true;
        stopSeen_.notify_all();
      }
      continue;
    }
    if (message->type != SwayIpc::kEventBinding) continue;
    const nlohmann::json& binding = message->body.value("binding", nlohmann::json::object());
    std::optional<KeyEvent> event = keyEventOfBinding(binding.value("command", std::string()));
    if (!event) continue;
    loop_.dispatchMain([weak = weak_from_this(), event = *event] {
      if (auto self = weak.lock()) self->deliver(event);
    });
  }
  if (stopping_) return;
  lost_ = true;
  setError("lost the compositor's IPC socket");
  KeyEvent disabled;
  disabled.type = EventType::tapDisabledByUserInput;
  loop_.dispatchMain([weak = weak_from_this(), disabled] {
    if (auto self = weak.lock()) {
      self->enabled_ = false;
      if (self->callback_ && *self->callback_) (*self->callback_)(disabled);
    }
  });
}

void SwayEventTap::Session::deliver(const KeyEvent& event) {
  if (handedOn_) return;
  const SwayCombination* combination = nullptr;
  for (const SwayCombination& c : swayCombinations()) {
    if (c.keyCode == event.keyCode && c.flags == event.flags) combination = &c;
  }
  TapVerdict verdict = TapVerdict::pass;
  const std::shared_ptr<Callback> callback = callback_;
  if (enabled_ && callback && *callback) verdict = (*callback)(event);
  if (event.type == EventType::keyDown && verdict == TapVerdict::swallow) startWatch(event);
  if (event.type == EventType::keyUp && watched_ && watched_->keyCode == event.keyCode) stopWatch();
  // The compositor kept the key from the application; letting it through means typing it again.
  if (verdict == TapVerdict::pass && event.type == EventType::keyDown && combination) {
    inject(combination, combination->keysym, combination->flags, true);
    inject(combination, combination->keysym, combination->flags, false);
  }
}

// The longest a watch may keep the keyboard, should its key-up never be seen.
constexpr double kWatchLimitSec = 20.0;

void SwayEventTap::Session::startWatch(const KeyEvent& press) {
  if (!watch_ && watchError_.empty()) {
    watch_ = KeyboardWatch::open(
        [weak = weak_from_this(), &loop = loop_](std::uint64_t flags) {
          loop.dispatchMain([weak, flags] {
            if (auto self = weak.lock()) self->onModifiers(flags);
          });
        },
        watchError_);
    if (!watch_) setError("cannot follow Ctrl during a hold: " + watchError_);
  }
  if (!watch_) return;
  watched_ = press;
  watch_->start();
  watchLimit_ = loop_.after(kWatchLimitSec, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->stopWatch();
  });
}

void SwayEventTap::Session::stopWatch() {
  if (!watched_) return;
  watched_.reset();
  watchLimit_.cancel();
  if (watch_) watch_->stop();
}

void SwayEventTap::Session::onModifiers(std::uint64_t flags) {
  if (!watched_) return;
  constexpr std::uint64_t kWatched = kFlagCommand | kFlagShift;
  if ((flags & kWatched) == (watched_->flags & kWatched)) return;
  KeyEvent change;
  change.type = EventType::flagsChanged;
  change.keyCode = watched_->keyCode;
  change.flags = flags;
  if (!(flags & kFlagCommand)) stopWatch();
  const std::shared_ptr<Callback> callback = callback_;
  if (enabled_ && callback && *callback) (*callback)(change);
}

void SwayEventTap::Session::inject(const SwayCombination* combination, std::uint32_t keysym,
                                   std::uint64_t flags, bool press) {
  // The watch's surface holds the keyboard focus; the key must reach the application.
  stopWatch();
  if (!keyboard_) {
    keyboard_ = VirtualKeyboard::open(keyboardError_);
    if (!keyboard_) {
      setError("cannot type keys: " + keyboardError_);
      return;
    }
  }
  if (press && combination && tapped_ && lifted_.insert(combination->word).second) {
    commands_->command(pressUnbindings(*combination));
  }
  keyboard_->key(keysym, flags, press);
  if (!press && combination && lifted_.erase(combination->word) && tapped_) {
    commands_->command(pressBindings(*combination));
  }
}

void SwayEventTap::Session::post(const KeyEvent& event) {
  if (event.type != EventType::keyDown && event.type != EventType::keyUp) return;
  const bool press = event.type == EventType::keyDown;
  const SwayCombination* combination = nullptr;
  std::uint32_t keysym = 0;
  for (const SwayCombination& c : swayCombinations()) {
    if (c.keyCode == event.keyCode) keysym = c.keysym;
    if (c.keyCode == event.keyCode && c.flags == event.flags) combination = &c;
  }
  if (keysym == 0) {
    // Other keys by their letter: the logic's key codes follow the physical layout of a US keyboard.
    static const std::pair<std::int64_t, std::uint32_t> kOthers[] = {{17, XKB_KEY_t}};
    for (const auto& [code, sym] : kOthers) {
      if (code == event.keyCode) keysym = sym;
    }
  }
  if (keysym == 0) return;
  inject(combination, keysym, event.flags, press);
}

// ---- SwayEventTap ----

namespace {

class SwayTapHandle final : public TapHandle {
 public:
  explicit SwayTapHandle(std::shared_ptr<SwayEventTap::Session> session) : session_(std::move(session)) {}
  ~SwayTapHandle() override { session_->stop(); }
  void enable() override { session_->enable(); }

 private:
  std::shared_ptr<SwayEventTap::Session> session_;
};

}  // namespace

SwayEventTap::SwayEventTap(MainLoop& loop, std::string socketPath)
    : loop_(loop), socketPath_(socketPath.empty() ? SwayIpc::socketPath() : std::move(socketPath)) {}

SwayEventTap::~SwayEventTap() = default;

bool SwayEventTap::isTrusted() {
  if (session_) return true;
  std::unique_ptr<SwayIpc> commands = SwayIpc::connect(socketPath_, lastError_);
  if (!commands) return false;
  if (!commands->request(SwayIpc::getVersion, "")) {
    lastError_ = "the compositor's IPC socket does not answer";
    return false;
  }
  session_ = std::make_shared<Session>(loop_, socketPath_, std::move(commands));
  lastError_.clear();
  return true;
}

std::unique_ptr<TapHandle> SwayEventTap::create(Callback callback) {
  if (!isTrusted()) return nullptr;
  std::string error;
  if (!session_->start(std::move(callback), error)) {
    lastError_ = error;
    return nullptr;
  }
  lastError_.clear();
  return std::make_unique<SwayTapHandle>(session_);
}

std::string SwayEventTap::lastError() const {
  if (!lastError_.empty() || !session_) return lastError_;
  return session_->error();
}

void SwayEventTap::post(const KeyEvent& event) {
  if (!isTrusted()) return;
  session_->post(event);
}

}  // namespace tarry::platform::wayland
