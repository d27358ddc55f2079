#include "platform/x11/x11_workspace.h"

#include "platform/linux/app_lookup.h"
#include "platform/linux/desktop_identifiers.h"
#include "platform/linux/proc_process_info.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string_view>
#include <vector>

namespace tarry::platform::x11 {
namespace {

using os::executableOf;

constexpr std::uint32_t kMaxIconSide = 64;
// EWMH source indication for requests from pagers and other tools acting for the user.
constexpr std::uint32_t kSourcePager = 2;

std::string lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::vector<std::string> commandLineOf(std::int32_t pid) {
  std::vector<std::string> args;
  if (pid <= 0) return args;
  std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
  for (std::string arg; std::getline(in, arg, '\0');) args.push_back(arg);
  return args;
}

/// A widget path that Tk (and Tk-based toolkits) gives a secondary top-level window as its
/// WM_CLASS instance ("!toplevel", ".dialog"): it names a window, not the program.
bool isWidgetPath(const std::string& name) { return !name.empty() && (name[0] == '!' || name[0] == '.'); }

/// A window class that a toolkit gives every program built with it, so it names none of them.
bool isGenericClass(const std::string& name) {
  const std::string l = lower(name);
  return l.empty() || l == "tk" || l == "toplevel" || l == "wish" || isWidgetPath(name);
}

// ICCCM WM_HINTS: the flag word comes first, the window group ninth.
constexpr std::uint32_t kWindowGroupHint = 1U << 6;
constexpr std::size_t kWmHintsGroupIndex = 8;

}  // namespace

std::string scriptNameOf(const std::vector<std::string>& args) {
  if (args.empty()) return {};
  const std::string program = std::filesystem::path(args[0]).filename().string();
  static constexpr std::string_view kInterpreters[] = {"python", "perl",  "ruby", "node",
                                                       "wish",   "tclsh", "lua",  "java"};
  const bool interpreter = std::any_of(std::begin(kInterpreters), std::end(kInterpreters),
                                       [&](std::string_view name) { return program.starts_with(name); });
  if (!interpreter) return {};
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "-m" && i + 1 < args.size()) return args[i + 1];
    if (arg == "-jar" && i + 1 < args.size()) return std::filesystem::path(args[i + 1]).stem().string();
    if (arg == "-c" || arg == "-e") return {};  // a program given inline has no name
    if (arg.empty() || arg[0] == '-') continue;
    return std::filesystem::path(arg).stem().string();
  }
  return {};
}

Icon pickWindowIcon(const std::vector<std::uint32_t>& data) {
  std::size_t best = data.size();
  std::uint32_t bestSide = 0;
  bool bestFits = false;
  for (std::size_t i = 0; i + 2 <= data.size();) {
    const std::uint32_t w = data[i];
    const std::uint32_t h = data[i + 1];
    const std::uint64_t count = static_cast<std::uint64_t>(w) * h;
    if (w == 0 || h == 0 || i + 2 + count > data.size()) break;
    const std::uint32_t side = std::max(w, h);
    const bool fits = side <= kMaxIconSide;
    if (best == data.size() || (fits && (!bestFits || side > bestSide)) ||
        (!fits && !bestFits && side < bestSide)) {
      best = i;
      bestSide = side;
      bestFits = fits;
    }
    i += 2 + static_cast<std::size_t>(count);
  }
  if (best == data.size()) return {};
  Icon icon;
  icon.width = static_cast<int>(data[best]);
  icon.height = static_cast<int>(data[best + 1]);
  const auto first = data.begin() + static_cast<std::ptrdiff_t>(best + 2);
  icon.argb = std::make_shared<const std::vector<std::uint32_t>>(
      first, first + static_cast<std::ptrdiff_t>(icon.width) * icon.height);
  return icon;
}

X11Workspace::X11Workspace(X11Display& display, DesktopEntries& entries, Icon ownIcon)
    : display_(display), entries_(entries), ownIcon_(std::move(ownIcon)) {
  xcb_connection_t* c = display_.connection();
  wakeWindow_ = xcb_generate_id(c);
  xcb_create_window(c, 0, wakeWindow_, display_.root(), -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                    XCB_COPY_FROM_PARENT, 0, nullptr);
  const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(c, display_.root(), XCB_CW_EVENT_MASK, &mask);
  xcb_flush(c);
  watcher_ = std::thread([this] { watch(); });
}

X11Workspace::~X11Workspace() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = wakeWindow_;
  xcb_send_event(display_.connection(), 0, wakeWindow_, XCB_EVENT_MASK_NO_EVENT,
                 reinterpret_cast<const char*>(&message));
  xcb_flush(display_.connection());
  watcher_.join();
  xcb_destroy_window(display_.connection(), wakeWindow_);
  xcb_flush(display_.connection());
}

X11Workspace::Resolved X11Workspace::resolve(xcb_window_t window) const {
  const Atoms& atoms = display_.atoms();
  Resolved out;
  RunningApp& app = out.app;
  app.pid = display_.pidOf(window);
  const auto [instance, wmClass] = display_.wmClass(window);

  std::optional<DesktopEntry> entry;
  if (auto gtk = display_.text(window, atoms.gtkApplicationId); gtk && !gtk->empty()) {
    app.bundleID = *gtk;
    entry = entries_.findById(*gtk);
  } else if (auto kde = display_.text(window, atoms.kdeDesktopFile); kde && !kde->empty()) {
    std::string id = std::filesystem::path(*kde).filename().string();
    if (id.size() > 8 && id.ends_with(".desktop")) id.resize(id.size() - 8);
    app.bundleID = id;
    entry = entries_.findById(id);
  } else {
    for (const std::string& name : {wmClass, instance}) {
      if (!entry && !isGenericClass(name)) entry = entries_.findByStartupWMClass(name);
    }
    // Many entries carry no StartupWMClass and are simply named after the program.
    for (const std::string& name : {wmClass, instance, lower(wmClass)}) {
      if (!entry && !isGenericClass(name)) entry = entries_.findById(name);
    }
    if (entry) app.bundleID = entry->id;
  }
  out.fromEntry = entry.has_value();
  out.named = !app.bundleID.empty() || !isGenericClass(wmClass) || !isGenericClass(instance);
  const std::string exe = executableOf(app.pid);
  if (app.bundleID.empty()) {
    // No desktop entry: the window class the program gave itself names it better than the
    // executable, which for scripts is the interpreter's (python3.11) and would put every Python
    // program under one rule. Toolkit-generic classes (every tkinter window is "Tk") do not.
    if (!isGenericClass(wmClass)) {
      app.bundleID = wmClass;
    } else if (!isGenericClass(instance)) {
      app.bundleID = instance;
    } else {
      app.bundleID = scriptNameOf(commandLineOf(app.pid));
    }
    if (app.bundleID.empty()) app.bundleID = std::filesystem::path(exe).filename().string();
  }

  if (entry && !entry->name.empty()) {
    app.localizedName = entry->name;
  } else if (!isGenericClass(wmClass)) {
    app.localizedName = wmClass;
  } else if (!isGenericClass(instance)) {
    app.localizedName = instance;
  } else {
    app.localizedName = app.bundleID;  // the script's name rather than "Tk"
  }
  app.path = entry ? entry->path : exe;
  // NOTE: some window managers (openbox) put a generic picture into _NET_WM_ICON of windows that
  // bring none; that is what their task bars show too.
  if (auto pixels = display_.cardinals(window, atoms.netWmIcon)) app.icon = pickWindowIcon(*pixels);
  if (app.icon.empty() && entry) app.icon.name = entry->icon;

  const bool shell = display_.hasType(window, atoms.netWmWindowTypeDesktop) ||
                     display_.hasType(window, atoms.netWmWindowTypeDock);
  if (shell) {
    const auto shells = os::linuxIdentifierEquivalents(IdentifierSet::dock);
    if (std::find(shells.begin(), shells.end(), app.bundleID) == shells.end()) app.bundleID = kDesktopShellId;
  }
  out.shell = shell;
  out.regular = !shell && display_.hasType(window, atoms.netWmWindowTypeNormal) &&
                !display_.hasState(window, atoms.netWmStateSkipTaskbar);
  app.regular = out.regular;

  const auto transientFor = display_.cardinals(window, XCB_ATOM_WM_TRANSIENT_FOR, 1);
  out.secondary =
      (transientFor && !transientFor->empty() && (*transientFor)[0] != 0) || isWidgetPath(instance);
  if (const auto leader = display_.cardinals(window, atoms.wmClientLeader, 1); leader && !leader->empty()) {
    out.leader = (*leader)[0];
  } else if (const auto hints = display_.cardinals(window, XCB_ATOM_WM_HINTS, kWmHintsGroupIndex + 1);
             hints && hints->size() > kWmHintsGroupIndex && ((*hints)[0] & kWindowGroupHint) != 0) {
    out.leader = (*hints)[kWmHintsGroupIndex];
  }
  if (out.leader == window) out.leader = 0;
  return out;
}

X11Workspace::Resolved X11Workspace::appOf(xcb_window_t window, const std::vector<xcb_window_t>& clients) {
  const Resolved own = cached(window);
  // A desktop or panel window stands for the desktop shell even when its process also shows
  // ordinary windows (file managers draw the desktop); a window without a known process stands alone.
  if (own.shell || own.app.pid <= 0) return own;
  std::vector<Resolved> mine;
  for (const xcb_window_t w : clients) {
    Resolved r = w == window ? own : cached(w);
    if (r.app.pid == own.app.pid && !r.shell) mine.push_back(std::move(r));
  }
  if (mine.empty()) mine.push_back(own);

  // NOTE: one process is one app, whichever of its windows is asked about. Its id comes from the
  // window whose hints lead to a desktop entry, else from its client or group leader, else from
  // its first plain top-level window; never from a transient window or a widget path.
  std::optional<Resolved> chosen;
  for (const Resolved& r : mine) {
    if (r.fromEntry) {
      chosen = r;
      break;
    }
  }
  if (!chosen) {
    for (const Resolved& r : mine) {
      if (r.leader == 0) continue;
      Resolved leader = cached(r.leader);
      if ((leader.app.pid == own.app.pid || leader.app.pid <= 0) && leader.named && !leader.secondary) {
        leader.app.pid = own.app.pid;
        chosen = std::move(leader);
      }
      break;
    }
  }
  if (!chosen) {
    for (const Resolved& r : mine) {
      if (!r.secondary && r.regular) {
        chosen = r;
        break;
      }
    }
  }
  if (!chosen) {
    const auto plain = std::find_if(mine.begin(), mine.end(), [](const Resolved& r) { return !r.secondary; });
    chosen = plain != mine.end() ? *plain : mine.front();
  }
  Resolved out = std::move(*chosen);
  out.regular = std::any_of(mine.begin(), mine.end(), [](const Resolved& r) { return r.regular; });
  out.app.regular = out.regular;
  if (out.app.icon.empty()) {
    for (const Resolved& r : mine) {
      if (!r.app.icon.empty()) {
        out.app.icon = r.app.icon;
        break;
      }
    }
  }
  return out;
}

std::vector<xcb_window_t> X11Workspace::knownClients() {
  {
    std::lock_guard lock(mutex_);
    if (clientsKnown_) return clients_;
  }
  return display_.clients();
}

X11Workspace::Resolved X11Workspace::cached(xcb_window_t window) {
  {
    std::lock_guard lock(mutex_);
    if (auto it = byWindow_.find(window); it != byWindow_.end()) return it->second;
  }
  Resolved resolved = resolve(window);
  std::lock_guard lock(mutex_);
  byWindow_[window] = resolved;
  return resolved;
}

void X11Workspace::readActive() {
  const auto active = display_.cardinals(display_.root(), display_.atoms().netActiveWindow, 1);
  const xcb_window_t window = active && !active->empty() ? (*active)[0] : 0;
  {
    std::lock_guard lock(mutex_);
    active_ = window;
    activeKnown_ = true;
  }
  if (window == 0) return;
  const std::int32_t pid = cached(window).app.pid;
  std::function<void(std::int32_t)> notify;
  {
    std::lock_guard lock(mutex_);
    if (pid == activePid_ || pid <= 0) return;
    activePid_ = pid;
    notify = onActivated_;
  }
  if (notify) notify(pid);
}

void X11Workspace::readClients() {
  std::vector<xcb_window_t> clients = display_.clients();
  std::vector<xcb_window_t> added;
  {
    std::lock_guard lock(mutex_);
    const std::set<xcb_window_t> known(clients_.begin(), clients_.end());
    const std::set<xcb_window_t> now(clients.begin(), clients.end());
    for (const xcb_window_t w : clients) {
      if (known.count(w)) continue;
      added.push_back(w);
      // The server reuses the ids of windows of clients that went away; what was learnt under
      // this id (say, as a stale active window) belongs to another window.
      byWindow_.erase(w);
    }
    std::erase_if(byWindow_, [&](const auto& entry) { return !now.count(entry.first); });
    clients_ = std::move(clients);
    clientsKnown_ = true;
  }
  // Follow the properties that make up a window's identity, which toolkits may set after mapping.
  const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
  for (const xcb_window_t w : added)
    xcb_change_window_attributes(display_.connection(), w, XCB_CW_EVENT_MASK, &mask);
  xcb_flush(display_.connection());
  // Learnt here, on this thread, so that the frontmost app (asked on every guarded key press)
  // is found among its process's windows from memory.
  for (const xcb_window_t w : added) (void)cached(w);
}

void X11Workspace::followProblem() {
  xcb_window_t check = 0;
  std::string problem = readProblem(&check);
  if (check != 0 && check != checkWindow_) {
    // EWMH: the check window lives as long as the window manager; its end is the one sign of a
    // window manager that went away (its root properties stay behind).
    const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(display_.connection(), check, XCB_CW_EVENT_MASK, &mask);
    // It may have gone between the read and the selection: read once more.
    problem = readProblem(&check);
  }
  std::lock_guard lock(mutex_);
  checkWindow_ = check;
  problem_ = std::move(problem);
  problemKnown_ = true;
}

void X11Workspace::watch() {
  readClients();
  readActive();
  followProblem();
  const Atoms& atoms = display_.atoms();
  for (;;) {
    xcb_generic_event_t* event = xcb_wait_for_event(display_.connection());
    if (!event) return;
    const std::uint8_t type = event->response_type & 0x7F;
    if (type == XCB_CLIENT_MESSAGE) {
      std::free(event);
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      continue;
    }
    if (type == XCB_DESTROY_NOTIFY) {
      const xcb_window_t gone = reinterpret_cast<const xcb_destroy_notify_event_t*>(event)->window;
      std::free(event);
      bool wasCheck = false;
      {
        std::lock_guard lock(mutex_);
        wasCheck = gone == checkWindow_;
      }
      if (wasCheck) followProblem();
      continue;
    }
    if (type != XCB_PROPERTY_NOTIFY) {
      std::free(event);
      continue;
    }
    const auto* notify = reinterpret_cast<const xcb_property_notify_event_t*>(event);
    const xcb_window_t window = notify->window;
    const xcb_atom_t atom = notify->atom;
    std::free(event);
    if (window == display_.root()) {
      if (atom == atoms.netClientList) readClients();
      if (atom == atoms.netActiveWindow) readActive();
      if (atom == atoms.netSupportingWmCheck || atom == atoms.netSupported) followProblem();
      continue;
    }
    if (atom == XCB_ATOM_WM_CLASS || atom == atoms.netWmIcon || atom == atoms.gtkApplicationId ||
        atom == atoms.kdeDesktopFile || atom == atoms.netWmPid || atom == atoms.netWmWindowType ||
        atom == atoms.netWmState) {
      bool isActive = false;
      {
        std::lock_guard lock(mutex_);
        byWindow_.erase(window);
        isActive = window == active_;
      }
      if (isActive) (void)cached(window);
    }
  }
}

std::string X11Workspace::problem() const {
  if (xcb_connection_has_error(display_.connection())) return "lost the connection to the X display";
  {
    std::lock_guard lock(mutex_);
    if (problemKnown_) return problem_;
  }
  return readProblem(nullptr);
}

std::string X11Workspace::readProblem(xcb_window_t* checkWindow) const {
  const Atoms& atoms = display_.atoms();
  // EWMH: the window manager's check window names itself in the same property while it runs.
  const auto check = display_.cardinals(display_.root(), atoms.netSupportingWmCheck, 1);
  const auto self = check && !check->empty() ? display_.cardinals((*check)[0], atoms.netSupportingWmCheck, 1)
                                             : std::nullopt;
  if (checkWindow != nullptr)
    *checkWindow = self && !self->empty() && (*self)[0] == (*check)[0] ? (*check)[0] : 0;
  if (!self || self->empty() || (*self)[0] != (*check)[0]) {
    return "no EWMH window manager is running, so the active window is unknown and Ctrl+Q, Ctrl+W and "
           "Ctrl+Shift+Q pass unguarded";
  }
  if (!display_.supported(atoms.netActiveWindow)) {
    return "the window manager does not announce the active window (_NET_ACTIVE_WINDOW), so Ctrl+Q, Ctrl+W "
           "and Ctrl+Shift+Q pass unguarded";
  }
  return {};
}

std::optional<RunningApp> X11Workspace::frontmostApplication() {
  xcb_window_t window = 0;
  bool known = false;
  {
    std::lock_guard lock(mutex_);
    window = active_;
    known = activeKnown_;
  }
  if (!known) {
    const auto active = display_.cardinals(display_.root(), display_.atoms().netActiveWindow, 1);
    window = active && !active->empty() ? (*active)[0] : 0;
  }
  if (window == 0) return std::nullopt;
  return appOf(window, knownClients()).app;
}

std::vector<RunningApp> X11Workspace::runningApplications() {
  std::vector<xcb_window_t> clients = knownClients();
  if (clients.empty()) clients = display_.clients();
  std::vector<RunningApp> apps;
  std::set<std::int32_t> seen;
  for (const xcb_window_t w : clients) {
    const Resolved r = cached(w);
    if (r.app.pid <= 0 || r.shell || !seen.insert(r.app.pid).second) continue;
    apps.push_back(appOf(w, clients).app);
  }
  // Desktop and panel windows count once per process too, after the apps.
  for (const xcb_window_t w : clients) {
    const Resolved r = cached(w);
    if (r.app.pid <= 0 || !r.shell || !seen.insert(r.app.pid).second) continue;
    apps.push_back(r.app);
  }
  return apps;
}

bool X11Workspace::terminate(const RunningApp& app) {
  if (app.pid <= 0) return false;
  const Atoms& atoms = display_.atoms();
  const bool closeByManager = display_.supported(atoms.netCloseWindow);
  bool sent = false;
  for (const xcb_window_t w : display_.clients()) {
    if (cached(w).app.pid != app.pid) continue;
    if (closeByManager) {
      display_.sendToRoot(w, atoms.netCloseWindow, XCB_CURRENT_TIME, kSourcePager);
      sent = true;
      continue;
    }
    const auto protocols = display_.cardinals(w, atoms.wmProtocols, 32);
    if (!protocols ||
        std::find(protocols->begin(), protocols->end(), atoms.wmDeleteWindow) == protocols->end()) {
      continue;
    }
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = w;
    message.type = atoms.wmProtocols;
    message.data.data32[0] = atoms.wmDeleteWindow;
    message.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(display_.connection(), 0, w, XCB_EVENT_MASK_NO_EVENT,
                   reinterpret_cast<const char*>(&message));
    sent = true;
  }
  xcb_flush(display_.connection());
  return sent;
}

bool X11Workspace::isTerminated(std::int32_t pid) { return os::processEnded(pid); }

std::int32_t X11Workspace::ownPid() const { return static_cast<std::int32_t>(getpid()); }

std::vector<std::string> X11Workspace::identifierEquivalents(IdentifierSet set) const {
  std::vector<std::string> ids = os::linuxIdentifierEquivalents(set);
  if (set == IdentifierSet::dock) ids.emplace_back(kDesktopShellId);
  if (set == IdentifierSet::terminals) {
    const std::vector<std::string> installed = installedTerminals();
    ids.insert(ids.end(), installed.begin(), installed.end());
  }
  return ids;
}

std::vector<std::string> X11Workspace::installedTerminals() const {
  constexpr double kRereadSec = 60;
  const double now =
      std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  const std::lock_guard lock(terminalsMutex_);
  if (terminalsReadAt_ < 0 || now - terminalsReadAt_ >= kRereadSec) {
    terminalsReadAt_ = now;
    terminals_.clear();
    // The freedesktop menu standard's category: every terminal emulator a distribution ships
    // declares it, whatever its desktop-file id ("debian-xterm", "org.gnome.Console", ...).
    for (const DesktopEntry& entry : entries_.installedApplications()) {
      if (std::find(entry.categories.begin(), entry.categories.end(), "TerminalEmulator") ==
          entry.categories.end()) {
        continue;
      }
      terminals_.push_back(entry.id);
      if (!entry.startupWMClass.empty()) terminals_.push_back(entry.startupWMClass);
    }
  }
  return terminals_;
}

}  // namespace tarry::platform::x11
