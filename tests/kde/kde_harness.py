"""A private headless KWin (Plasma on Wayland) for end-to-end runs of tarry: a session bus of its
own, `kwin_wayland --virtual`, the Wayland test client, tarry with its own configuration, and
tarry-kde-typist (KWin's fake input) as the user's hands.

/usr/bin/kwin_wayland carries a file capability (cap_sys_resource on KWin 5.27, cap_sys_nice on
Plasma 6) that a container refuses to exec; the harness runs a copy without it, still called
kwin_wayland (its Qt platform plugin goes by the program's name). KWin offers its fake input only
to programs whose desktop file declares it: the typist gets one here; tarry writes its own. The
account, the private folder, the processes and the case runner are those of
tests/support/session_harness.py.
"""

import json
import os
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))
sys.path.insert(0, os.path.join(HERE, "..", "wayland"))
from session_harness import Failure, SessionDesktop, Skip, wait_for  # noqa: E402
from sway_harness import CLIENT_ENTRY, CLIENT_ID, Client  # noqa: E402

KWIN = "/usr/bin/kwin_wayland"
SCREENSHOT = os.path.join(HERE, "kwin_screenshot.py")
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
KEY_CODES = {"ctrl": KEY_CTRL, "shift": KEY_SHIFT, "alt": KEY_ALT, "q": KEY_Q, "w": KEY_W, "z": KEY_Z, "a": KEY_A,
             "Return": KEY_ENTER}


class KdeDesktop(SessionDesktop):
    compositor = "kwin"
    tarry_start_timeout = 15
    Client = Client

    def __init__(self, tarry, client, typist, register_tarry=True):
        if not os.path.exists(KWIN):
            raise Skip("kwin_wayland is not installed")
        super().__init__("tarry-kde-", lambda: self._start(tarry, client, typist, register_tarry))

    def _start(self, tarry, client, typist, register_tarry):
        bindir = self.make_folders()
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
        apps = os.path.join("data", "applications")
        self.write_file(os.path.join(apps, CLIENT_ID + ".desktop"), CLIENT_ENTRY)
        self.write_file(os.path.join(apps, "org.tarry.KdeTypist.desktop"), TYPIST_ENTRY.format(exe=self.typist))
        os.makedirs(os.path.join(self.tmp, "config", "menus"))
        self.write_file(os.path.join("config", "menus", "applications.menu"), APPLICATIONS_MENU)
        if register_tarry:
            # As the installed launcher does; without it, tarry writes an entry of its own at its
            # first start, which KWin's service cache learns only a moment later.
            self.write_file(os.path.join(apps, "org.tarry.Tarry.desktop"),
                            TYPIST_ENTRY.format(exe=self.tarry).replace("Tarry KDE Typist", "Tarry"))
        self.hand_over()
        self.make_env(keep=("QT_LOGGING_RULES",),
                      PATH=bindir + ":/usr/local/bin:/usr/bin:/bin",
                      XDG_CACHE_HOME=os.path.join(self.tmp, "cache"),
                      XDG_CURRENT_DESKTOP="KDE",
                      XDG_SESSION_TYPE="wayland")
        self._start_bus()
        self._start_kwin()

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

    # ---- the program ----

    def start_tarry(self, extra_env=None):
        super().start_tarry(extra_env)
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

    def await_keyboard(self, name, client):
        # Focused once a key typed now reaches it.
        def focused():
            self.type(KEY_A)
            time.sleep(0.1)
            return any(w[0] == "press" and int(w[1]) == 0x41 for _, w in client.lines())
        wait_for(name + " to have the keyboard", focused, timeout=10, interval=0.1)

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
        """As on every desktop (see SessionDesktop). Without screenshots (KWin 6's virtual screen
        composites with OpenGL only on a GPU), true while KWin shows a window of tarry's over the
        middle that no task bar lists: the HUD's surface."""
        if getattr(self, "_no_screenshots", False):
            return self._hud_window()
        try:
            return super().hud_visible()
        except Failure as failure:
            if "/org/kde/KWin/ScreenShot2" not in str(failure):
                raise
            self._no_screenshots = True
            print("no KWin screenshots here: the HUD is seen as a window", flush=True)
            return self._hud_window()

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
        """Runs tarry-kde-typist with these steps (+KEY, -KEY: a name or an evdev code; milliseconds)."""
        argv = [self.typist] + [str(s) if isinstance(s, int) else s[0] + str(KEY_CODES.get(s[1:], s[1:]))
                                for s in steps]
        if background:
            return self.spawn(argv, "typist")
        self.run(argv)
        return None

    def focused_pid(self):
        return next((w["pid"] for w in self.windows() if w["active"]), None)

    def focus(self, client):
        caption = next((w["caption"] for w in self.windows() if w["pid"] == client.process.pid), None)
        if not (caption and self.set_window(caption, activate=True)):
            raise Failure("no client window: %s" % self.windows())
