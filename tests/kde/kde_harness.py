"""A private headless KWin (Plasma on Wayland) for end-to-end runs of tarry: a session bus of its
own, `kwin_wayland --virtual`, the Wayland test client, tarry with its own configuration, and
tarry-kde-typist (KWin's fake input) as the user's hands.

/usr/bin/kwin_wayland carries a file capability (cap_sys_resource on KWin 5.27, cap_sys_nice on
Plasma 6) that a container refuses to exec; the harness runs a copy without it, still called
kwin_wayland (its Qt platform plugin goes by the program's name). Run as root (as CI does), everything runs as the unprivileged user of the
sway tests, from copies in a temporary folder that user owns. KWin offers its fake input only to
programs whose desktop file declares it: the typist gets one here; tarry writes its own. Every
process started here is ended by `close()` (also on SIGTERM, which ctest sends on a timeout), and
the temporary folder is removed.
"""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "wayland"))
from sway_harness import CLIENT_ENTRY, CLIENT_ID, SKIP, Client, Failure, Skip, ensure_user, wait_for  # noqa: E402,F401
from harness import stop_all  # noqa: E402

KWIN = "/usr/bin/kwin_wayland"
SCREENSHOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "kwin_screenshot.py")
SOCKET = "wayland-tarry"
TYPIST_ENTRY = """[Desktop Entry]
Type=Application
Name=Tarry KDE Typist
Exec={exe}
X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input
"""

# What the tests' own KWin scripts call, under Plasma 6's names or KWin 5.27's.
EVAL_PRELUDE = """
var plasma6 = typeof workspace.windowList === "function";
function allWindows() { return plasma6 ? workspace.windowList() : workspace.clientList(); }
function activeWindow() { return plasma6 ? workspace.activeWindow : workspace.activeClient; }
function activate(w) { if (plasma6) workspace.activeWindow = w; else workspace.activeClient = w; }
"""

# KDE Frameworks 6 lists applications (and with them the typist's desktop file) in the service
# cache only through a menu, which Plasma 6's workspace ships; KWin 5.27's Frameworks bring their own
# under another name (kf5-applications.menu).
APPLICATIONS_MENU = """<!DOCTYPE Menu PUBLIC "-//freedesktop//DTD Menu 1.0//EN"
 "http://www.freedesktop.org/standards/menu-spec/1.0/menu.dtd">
<Menu><Name>Applications</Name><DefaultAppDirs/><DefaultDirectoryDirs/><Include><All/></Include></Menu>
"""

# evdev key codes
KEY_CTRL, KEY_SHIFT, KEY_ALT = 29, 42, 56
KEY_Q, KEY_W, KEY_Z, KEY_A, KEY_ENTER = 16, 17, 44, 30, 28


class KdeDesktop:
    def __init__(self, tarry, client, typist, register_tarry=True):
        if not os.path.exists(KWIN):
            raise Skip("kwin_wayland is not installed")
        self.account = ensure_user()
        self.tmp = tempfile.mkdtemp(prefix="tarry-kde-")
        self.procs = []
        self.clients = []
        self.tarry_proc = None
        signal.signal(signal.SIGTERM, self._on_signal)
        try:
            self._prepare(tarry, client, typist, register_tarry)
            self._start_bus()
            self._start_kwin()
            os.makedirs(os.path.join(self.tmp, "logs"))
            self.chown(os.path.join(self.tmp, "logs"))
            self.defaults("write", "logDir", '"%s"' % os.path.join(self.tmp, "logs"))
            # The first-run consent is given, and no tray icon: the guard is what these cases see.
            self.defaults("write", "consentVersion", "1")
            self.defaults("write", "showMenuBar", "false")
        except BaseException:
            self.close()
            raise

    def _on_signal(self, signum, frame):
        self.close()
        raise SystemExit(128 + signum)

    def chown(self, path):
        if self.account:
            os.chown(path, self.account.pw_uid, self.account.pw_gid)

    def _prepare(self, tarry, client, typist, register_tarry):
        self.chown(self.tmp)
        os.chmod(self.tmp, 0o700)
        bindir = os.path.join(self.tmp, "bin")
        os.makedirs(bindir)
        # A plain copy drops the file capability.
        shutil.copyfile(KWIN, os.path.join(bindir, "kwin_wayland"))
        os.chmod(os.path.join(bindir, "kwin_wayland"), 0o755)
        self.tarry = shutil.copy(tarry, bindir)
        script = os.path.join(os.path.dirname(tarry), "tarry-kwin.js")
        if os.path.exists(script):
            shutil.copy(script, bindir)
        self.client = shutil.copy(client, bindir)
        self.typist = shutil.copy(typist, bindir)
        self.shot = shutil.copy(SCREENSHOT, bindir)
        runtime = os.path.join(self.tmp, "run")
        os.makedirs(runtime, mode=0o700)
        home = os.path.join(self.tmp, "home")
        apps = os.path.join(self.tmp, "data", "applications")
        os.makedirs(apps)
        os.makedirs(home)
        menus = os.path.join(self.tmp, "config", "menus")
        os.makedirs(menus)
        with open(os.path.join(menus, "applications.menu"), "w", encoding="utf-8") as f:
            f.write(APPLICATIONS_MENU)
        with open(os.path.join(apps, CLIENT_ID + ".desktop"), "w", encoding="utf-8") as f:
            f.write(CLIENT_ENTRY)
        with open(os.path.join(apps, "org.tarry.KdeTypist.desktop"), "w", encoding="utf-8") as f:
            f.write(TYPIST_ENTRY.format(exe=self.typist))
        if register_tarry:
            # As the installed launcher does; without it, tarry writes an entry of its own at its
            # first start, which KWin's service cache learns only a moment later.
            with open(os.path.join(apps, "org.tarry.Tarry.desktop"), "w", encoding="utf-8") as f:
                f.write(TYPIST_ENTRY.format(exe=self.tarry).replace("Tarry KDE Typist", "Tarry"))
        for root, dirs, files in os.walk(self.tmp):
            for name in dirs + files:
                self.chown(os.path.join(root, name))
            os.chmod(root, 0o700)
        env = {name: value for name, value in os.environ.items()
               if name in ("TERM", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "QT_LOGGING_RULES")}
        env.update({
            "PATH": bindir + ":/usr/local/bin:/usr/bin:/bin",
            "HOME": home,
            "USER": self.account.pw_name if self.account else os.environ.get("USER", ""),
            "XDG_CONFIG_HOME": os.path.join(self.tmp, "config"),
            "XDG_DATA_HOME": os.path.join(self.tmp, "data"),
            "XDG_CACHE_HOME": os.path.join(self.tmp, "cache"),
            "XDG_DATA_DIRS": "/usr/local/share:/usr/share",
            "XDG_RUNTIME_DIR": runtime,
            "XDG_CURRENT_DESKTOP": "KDE",
            "XDG_SESSION_TYPE": "wayland",
            "LC_ALL": "C.UTF-8",
            "QT_QPA_PLATFORM": "wayland",
        })
        self.env = env

    def _user_args(self):
        if not self.account:
            return {}
        return {"user": self.account.pw_uid, "group": self.account.pw_gid, "extra_groups": []}

    # ---- processes ----

    def spawn(self, argv, name, extra_env=None):
        env = dict(self.env)
        for key, value in (extra_env or {}).items():
            if value is None:
                env.pop(key, None)
            else:
                env[key] = value
        path = os.path.join(self.tmp, name + ".out")
        out = open(path, "ab")
        self.chown(path)
        proc = subprocess.Popen(argv, env=env, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                **self._user_args())
        out.close()
        self.procs.append(proc)
        return proc

    def run(self, argv, timeout=30, check=True):
        result = subprocess.run(argv, env=self.env, capture_output=True, timeout=timeout, **self._user_args())
        if check and result.returncode != 0:
            raise Failure("%s failed: %s" % (" ".join(argv), result.stderr.decode(errors="replace")))
        return result

    def close(self):
        stop_all(self.procs)
        self.procs = []
        shutil.rmtree(self.tmp, ignore_errors=True)

    def _start_bus(self):
        bus = self.spawn(["dbus-daemon", "--session", "--nofork", "--print-address"], "dbus")
        address = wait_for("the session bus", lambda: self.output("dbus").strip().splitlines()[0]
                           if self.output("dbus").strip() else (bus.poll() is not None and "-"), timeout=10)
        if address == "-":
            raise Skip("dbus-daemon did not start: " + self.output("dbus"))
        self.env["DBUS_SESSION_BUS_ADDRESS"] = address
        # KWin finds the typist's desktop file through the service cache.
        self.run([self.sycoca(), "--noincremental"], timeout=60, check=False)

    def sycoca(self):
        """kbuildsycoca6 (Plasma 6) or kbuildsycoca5 (Plasma 5.27)."""
        return "kbuildsycoca6" if shutil.which("kbuildsycoca6", path=self.env["PATH"]) else "kbuildsycoca5"

    def has_owner(self, name):
        result = self.run(["dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                           "org.freedesktop.DBus.NameHasOwner", "string:" + name], check=False)
        return b"boolean true" in result.stdout

    def _start_kwin(self):
        # Screenshots (ScreenShot2) need OpenGL compositing (llvmpipe here) and, for the tests' own
        # tool, no permission check.
        kwin = self.spawn(["kwin_wayland", "--virtual", "--width", "1280", "--height", "800", "--socket", SOCKET],
                          "kwin", {"WAYLAND_DISPLAY": None, "KWIN_SCREENSHOT_NO_PERMISSION_CHECKS": "1",
                                   # print() of the tests' own KWin scripts (kwin_eval)
                                   "QT_LOGGING_RULES": "kwin_scripting.debug=true;" +
                                   self.env.get("QT_LOGGING_RULES", "")})
        self.env["WAYLAND_DISPLAY"] = SOCKET
        end = time.monotonic() + 20
        while time.monotonic() < end:
            if kwin.poll() is not None:
                raise Skip("kwin_wayland did not start: " + self.output("kwin")[-2000:])
            # Global shortcuts live inside KWin: calling them before KWin has the name would start a
            # standalone daemon through D-Bus activation.
            if os.path.exists(os.path.join(self.env["XDG_RUNTIME_DIR"], SOCKET)) and \
                    self.has_owner("org.kde.KWin") and self.has_owner("org.kde.kglobalaccel"):
                return
            time.sleep(0.05)
        raise Skip("kwin_wayland was not ready in 20 s: " + self.output("kwin")[-2000:])

    def output(self, name):
        try:
            with open(os.path.join(self.tmp, name + ".out"), encoding="utf-8", errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    # ---- the program ----

    def defaults(self, *args):
        return self.run([self.tarry, "defaults"] + list(args), timeout=20).stdout.decode().strip()

    def counter(self, name):
        result = self.run([self.tarry, "defaults", "read", "all." + name], timeout=20, check=False)
        text = result.stdout.decode().strip()
        return int(text) if result.returncode == 0 and text else 0

    def events_log(self):
        try:
            with open(os.path.join(self.tmp, "logs", "events.log"), encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def start_tarry(self, extra_env=None):
        before = self.events_log().count("keyboard guard on")
        # As the session starts it at login: no window of its own takes the focus while the guard works.
        self.tarry_proc = self.spawn([self.tarry, "--autostart"], "tarry", extra_env)
        wait_for("tarry to install its keyboard guard",
                 lambda: self.events_log().count("keyboard guard on") > before or self.tarry_proc.poll() is not None,
                 timeout=15)
        if self.tarry_proc.poll() is not None:
            raise Failure("tarry ended at start: " + self.output("tarry"))
        # A first start writes tarry's desktop file and refreshes the service cache; fake input is
        # offered once that is done.
        wait_for("the service cache to be refreshed", lambda: not self.running(self.sycoca()), timeout=20)
        return self.tarry_proc

    def lock_applications(self):
        """Makes the user's applications folder read-only to tarry (owned by root when run as
        root, else without write permission)."""
        apps = os.path.join(self.tmp, "data", "applications")
        if self.account:
            os.chown(apps, 0, 0)
            os.chmod(apps, 0o755)
        else:
            os.chmod(apps, 0o555)

    def running(self, name):
        argv = ["pgrep", "-x", name] + (["-u", str(self.account.pw_uid)] if self.account else [])
        return subprocess.run(argv, capture_output=True).returncode == 0

    def start_client(self, name, *args):
        client = Client(self, name, args)
        self.clients.append(client)
        # Focused once a key typed now reaches it.
        def focused():
            self.type(KEY_A)
            time.sleep(0.1)
            return any(w[0] == "press" and int(w[1]) == 0x41 for _, w in client.lines())
        wait_for(name + " to have the keyboard", focused, timeout=10, interval=0.1)
        return client

    def report(self):
        parts = ["--- tarry output:\n" + self.output("tarry"), "--- events.log:\n" + self.events_log(),
                 "--- kwin output (end):\n" + self.output("kwin")[-3000:]]
        for client in self.clients:
            try:
                with open(client.log, encoding="utf-8") as f:
                    parts.append("--- %s:\n%s" % (os.path.basename(client.log), f.read()))
            except FileNotFoundError:
                pass
        return "\n".join(parts)

    # ---- KWin, asked directly ----

    def kwin_eval(self, body):
        """Runs a KWin script whose `body` may call `answer(value)` once; returns the value (JSON).
        The body lists windows with `allWindows()`, and reads and sets the active one with
        `activeWindow()` and `activate(w)`, under the names of Plasma 6 or KWin 5.27."""
        self._evals = getattr(self, "_evals", 0) + 1
        marker = "tarry-eval-%d" % self._evals
        path = os.path.join(self.tmp, marker + ".js")
        with open(path, "w", encoding="utf-8") as f:
            f.write("function answer(v) { print('%s ' + JSON.stringify(v)); }\n%s\n%s\n" % (marker, EVAL_PRELUDE, body))
        self.chown(path)
        loaded = self.run(["dbus-send", "--session", "--print-reply", "--dest=org.kde.KWin", "/Scripting",
                           "org.kde.kwin.Scripting.loadScript", "string:" + path, "string:" + marker])
        script_id = int(loaded.stdout.split()[-1])
        # Plasma 6 names the script's object /Scripting/Script<id>, KWin 5.27 /<id>.
        for script in ("/Scripting/Script%d" % script_id, "/%d" % script_id):
            ran = self.run(["dbus-send", "--session", "--print-reply", "--dest=org.kde.KWin", script,
                            "org.kde.kwin.Script.run"], check=False)
            if ran.returncode == 0:
                break
        else:
            raise Failure("KWin did not run a script: " + ran.stderr.decode(errors="replace"))
        try:
            def answered():
                for line in self.output("kwin").splitlines():
                    at = line.find(marker + " ")
                    if at >= 0:
                        return line[at + len(marker) + 1:]
                return None
            return json.loads(wait_for("KWin to run a script", answered, timeout=5))
        finally:
            self.run(["dbus-send", "--session", "--print-reply", "--dest=org.kde.KWin", "/Scripting",
                      "org.kde.kwin.Scripting.unloadScript", "string:" + marker], check=False)

    def windows(self):
        """caption, pid, [x, y, w, h], minimized, active of every normal window."""
        return self.kwin_eval("""
            var out = [];
            var all = allWindows();
            for (var i = 0; i < all.length; ++i) {
              var w = all[i];
              if (!w.normalWindow) continue;
              var g = w.frameGeometry;
              out.push({caption: String(w.caption), pid: w.pid, frame: [g.x, g.y, g.width, g.height],
                        minimized: w.minimized, active: w === activeWindow()});
            }
            answer(out);""")

    def set_window(self, caption, frame=None, minimized=None, activate=False):
        """Moves and sizes, (un)minimizes or activates the window with this caption, as a user would."""
        return self.kwin_eval("""
            var all = allWindows();
            var done = false;
            for (var i = 0; i < all.length; ++i) {
              var w = all[i];
              if (String(w.caption) !== %s) continue;
              var frame = %s, minimized = %s;
              if (frame) w.frameGeometry = {x: frame[0], y: frame[1], width: frame[2], height: frame[3]};
              if (minimized !== null) w.minimized = minimized;
              if (%s) activate(w);
              done = true;
            }
            answer(done);""" % (json.dumps(caption), json.dumps(frame), json.dumps(minimized),
                                "true" if activate else "false"))

    # ---- the user's eyes ----

    def screenshot(self, path, area=None):
        """Saves the screen (or an area x, y, w, h) as a PPM."""
        self.run(["/usr/bin/python3", self.shot, path] + [str(v) for v in (area or ())])

    def pixel(self, x, y):
        path = os.path.join(self.tmp, "pixel.ppm")
        self.screenshot(path, (x, y, 1, 1))
        with open(path, "rb") as f:
            data = f.read()
        return tuple(data.split(maxsplit=4)[4][:3])

    def hud_visible(self):
        """True while the HUD covers the middle of the screen (it is centred; just under its top
        edge lies its light backdrop, and the test client's windows are dark blue). Without
        screenshots (KWin 6's virtual screen composites with OpenGL only on a GPU), true while
        KWin shows a window of tarry's over the middle that no task bar lists: the HUD's surface."""
        if getattr(self, "_no_screenshots", False):
            return self._hud_window()
        try:
            r, g, b = self.pixel(640, 357)
        except Failure as failure:
            if "/org/kde/KWin/ScreenShot2" not in str(failure):
                raise
            self._no_screenshots = True
            print("no KWin screenshots here: the HUD is seen as a window", flush=True)
            return self._hud_window()
        return min(r, g, b) > 200

    def _hud_window(self):
        return self.kwin_eval("""
            var all = allWindows(), shown = false;
            for (var i = 0; i < all.length; ++i) {
              var w = all[i], g = w.frameGeometry;
              if (w.pid === %d && w.skipTaskbar && !w.minimized && g.x <= 640 && g.x + g.width > 640 &&
                  g.y <= 357 && g.y + g.height > 357) shown = true;
            }
            answer(shown);""" % (self.tarry_proc.pid if self.tarry_proc else -1))

    # ---- the user's hands ----

    def keys(self, *steps, background=False):
        """Runs tarry-kde-typist with these steps (+CODE, -CODE, milliseconds)."""
        argv = [self.typist] + [str(s) for s in steps]
        if background:
            return self.spawn(argv, "typist")
        self.run(argv)
        return None

    def type(self, key, mods=(), hold_ms=30, background=False):
        """Presses mods+key, holds it `hold_ms`, and releases it (key first)."""
        steps = ["+%d" % m for m in mods] + ["+%d" % key, hold_ms, "-%d" % key] + ["-%d" % m for m in reversed(mods)]
        return self.keys(*steps, background=background)

    def hold(self, key, ms, mods=(KEY_CTRL,)):
        return self.type(key, mods, ms, background=True)
