"""A private headless sway for end-to-end runs of tarry on Wayland: sway with the headless
backend, the Wayland test client, foot, tarry with its own configuration, and wtype as the user's
hands.

sway refuses to run as root. Run as root (as CI does), the harness creates an unprivileged user
(`tarry-e2e`) once and runs sway and every client as that user, from copies of the binaries in a
temporary folder that user owns. Every process started here is ended by `close()` (also on
SIGTERM, which ctest sends on a timeout), and the temporary folder is removed.
"""

import glob
import json
import os
import pwd
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from harness import Failure, LoggedClient, stop_all, wait_for  # noqa: E402,F401

USER = "tarry-e2e"
CLIENT_ID = "org.tarry.WaylandClient"
CLIENT_ENTRY = """[Desktop Entry]
Type=Application
Name=Tarry Wayland Client
Exec=tarry-wayland-client
Icon=utilities-terminal
"""
SWAY_CONFIG = """output HEADLESS-1 resolution 1280x800 position 0 0
xwayland disable
default_border normal
focus_on_window_activation focus
"""
# The exit status ctest reads as "skipped".
SKIP = 77


class Skip(Exception):
    pass


def ensure_user():
    """The unprivileged user to run sway as; created once when missing. None: run as ourselves."""
    if os.geteuid() != 0:
        return None
    try:
        return pwd.getpwnam(USER)
    except KeyError:
        pass
    result = subprocess.run(["useradd", "--system", "--no-create-home", "--shell", "/usr/sbin/nologin", USER],
                            capture_output=True, text=True)
    # 9: another run created it in the meantime.
    if result.returncode not in (0, 9):
        raise Skip("cannot create the test user %s: %s" % (USER, result.stderr.strip()))
    return pwd.getpwnam(USER)


class Client(LoggedClient):
    """A running tarry-wayland-client and its key log."""

    def __init__(self, desktop, name, args):
        super().__init__(desktop, name, args)
        wait_for(name + " to show its windows", lambda: self._has("ready"), timeout=10)

    def _has(self, word):
        return any(words[0] == word for _, words in self.lines())

    def presses(self, qt_key=None):
        """(time, Qt key, ctrl) of every key press received."""
        return [(at, int(w[1]), w[2] == "1") for at, w in self.lines()
                if w[0] == "press" and (qt_key is None or int(w[1]) == qt_key)]

    def close_requests(self):
        return [int(w[1]) for _, w in self.lines() if w[0] == "close-request"]


class SwayDesktop:
    def __init__(self, tarry, client, typist=None):
        if not shutil.which("sway"):
            raise Skip("sway is not installed")
        self.account = ensure_user()
        self.tmp = tempfile.mkdtemp(prefix="tarry-sway-")
        self.procs = []
        self.clients = []
        self.tarry_proc = None
        signal.signal(signal.SIGTERM, self._on_signal)
        try:
            self._prepare(tarry, client, typist)
            self._start_sway()
            os.makedirs(os.path.join(self.tmp, "logs"))
            self.chown(os.path.join(self.tmp, "logs"))
            self.defaults("write", "logDir", json.dumps(os.path.join(self.tmp, "logs")))
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

    def _prepare(self, tarry, client, typist):
        self.chown(self.tmp)
        os.chmod(self.tmp, 0o700)
        # The build folder may not be readable by the test user: run copies.
        bindir = os.path.join(self.tmp, "bin")
        os.makedirs(bindir)
        self.tarry = shutil.copy(tarry, bindir)
        self.client = shutil.copy(client, bindir)
        self.typist = shutil.copy(typist, bindir) if typist else None
        runtime = os.path.join(self.tmp, "run")
        os.makedirs(runtime, mode=0o700)
        home = os.path.join(self.tmp, "home")
        apps = os.path.join(self.tmp, "data", "applications")
        os.makedirs(apps)
        os.makedirs(home)
        with open(os.path.join(apps, CLIENT_ID + ".desktop"), "w", encoding="utf-8") as f:
            f.write(CLIENT_ENTRY)
        with open(os.path.join(self.tmp, "sway.conf"), "w", encoding="utf-8") as f:
            f.write(SWAY_CONFIG)
        for root, dirs, files in os.walk(self.tmp):
            for name in dirs + files:
                self.chown(os.path.join(root, name))
            os.chmod(root, 0o700)
        env = {name: value for name, value in os.environ.items()
               if name in ("PATH", "TERM", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS")}
        env.update({
            "HOME": home,
            "USER": self.account.pw_name if self.account else os.environ.get("USER", ""),
            "XDG_CONFIG_HOME": os.path.join(self.tmp, "config"),
            "XDG_DATA_HOME": os.path.join(self.tmp, "data"),
            "XDG_DATA_DIRS": "/usr/local/share:/usr/share",
            "XDG_RUNTIME_DIR": runtime,
            "LC_ALL": "C.UTF-8",
            "WLR_BACKENDS": "headless",
            "WLR_LIBINPUT_NO_DEVICES": "1",
            "WLR_RENDERER": "pixman",
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

    def _start_sway(self):
        runtime = self.env["XDG_RUNTIME_DIR"]
        sway = self.spawn(["sway", "-c", os.path.join(self.tmp, "sway.conf")], "sway")
        end = time.monotonic() + 15
        while time.monotonic() < end:
            if sway.poll() is not None:
                raise Skip("sway did not start: " + self.output("sway")[-2000:])
            sockets = glob.glob(os.path.join(runtime, "sway-ipc.*.sock"))
            displays = [p for p in glob.glob(os.path.join(runtime, "wayland-*")) if not p.endswith(".lock")]
            if sockets and displays:
                self.env["SWAYSOCK"] = sockets[0]
                self.env["WAYLAND_DISPLAY"] = os.path.basename(displays[0])
                if self.run(["swaymsg", "-t", "get_version"], check=False).returncode == 0:
                    return
            time.sleep(0.05)
        raise Skip("sway did not open its sockets in 15 s: " + self.output("sway")[-2000:])

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

    def start_tarry(self):
        before = self.events_log().count("keyboard guard on")
        # As the session starts it at login: no window of its own takes the focus while the guard works.
        self.tarry_proc = self.spawn([self.tarry, "--autostart"], "tarry")
        wait_for("tarry to install its keyboard guard",
                 lambda: self.events_log().count("keyboard guard on") > before or self.tarry_proc.poll() is not None)
        if self.tarry_proc.poll() is not None:
            raise Failure("tarry ended at start: " + self.output("tarry"))
        return self.tarry_proc

    def start_client(self, name, *args):
        client = Client(self, name, args)
        self.clients.append(client)
        return client

    def report(self):
        parts = ["--- tarry output:\n" + self.output("tarry"), "--- events.log:\n" + self.events_log(),
                 "--- sway output (end):\n" + self.output("sway")[-3000:]]
        for client in self.clients:
            try:
                with open(client.log, encoding="utf-8") as f:
                    parts.append("--- %s:\n%s" % (os.path.basename(client.log), f.read()))
            except FileNotFoundError:
                pass
        return "\n".join(parts)

    # ---- the user's hands and eyes ----

    def wtype(self, *args, background=False):
        """Types through wtype (its own virtual keyboard, as a physical one would)."""
        if background:
            return self.spawn(["wtype"] + list(args), "wtype")
        self.run(["wtype"] + list(args))
        return None

    def swallowing_bindings_fired_by(self, *wtype_args):
        """The press bindings (those that keep a key from the application: tarry's `nop ... down`)
        that fire while wtype types this. tarry leaves its release bindings in place on purpose."""
        return [c for c in self.bindings_fired_by(*wtype_args) if " down " in c]

    def bindings_fired_by(self, *wtype_args):
        """The `nop` commands of the compositor's bindings that fire while wtype types this."""
        argv = ["swaymsg", "-t", "subscribe", "-m", '["binding"]']
        watcher = subprocess.Popen(argv, env=self.env, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   **self._user_args())
        try:
            time.sleep(0.3)  # subscribed
            self.wtype(*wtype_args)
            time.sleep(0.3)
        finally:
            watcher.terminate()
        out = watcher.communicate(timeout=5)[0].decode(errors="replace")
        commands = []
        for line in out.splitlines():
            try:
                commands.append(json.loads(line)["binding"]["command"])
            except (ValueError, KeyError):
                pass
        return commands

    def type_ctrl_q(self, presses=3):
        """Presses Ctrl+Q `presses` times through tarry-sway-typist (a full keymap, as a physical
        keyboard has)."""
        self.run([self.typist, str(presses), "50", "100"])

    def type_ctrl_key(self, keysym, layout, hold_ms, background=False):
        """Holds Ctrl and the key that types `keysym` for `hold_ms` on a keyboard of `layout`
        ("ru": Russian), through tarry-sway-typist."""
        argv = [self.typist, "1", str(hold_ms), "100", keysym]
        if background:
            return self.spawn(argv, "typist", {"XKB_DEFAULT_LAYOUT": layout})
        env = dict(self.env, XKB_DEFAULT_LAYOUT=layout)
        result = subprocess.run(argv, env=env, capture_output=True, timeout=30, **self._user_args())
        if result.returncode != 0:
            raise Failure("the typist failed: %s" % result.stderr.decode(errors="replace"))
        return None

    def views(self):
        """(app_id, pid, focused) of every window in the compositor's tree."""
        tree = json.loads(self.run(["swaymsg", "-t", "get_tree"]).stdout)
        out, stack = [], [tree]
        while stack:
            node = stack.pop()
            if node.get("pid"):
                out.append((node.get("app_id"), node.get("pid"), bool(node.get("focused"))))
            stack.extend(node.get("nodes", []) + node.get("floating_nodes", []))
        return out

    def focused_app(self):
        return next((app for app, pid, focused in self.views() if focused), None)

    def pixel(self, x, y):
        """The (r, g, b) at (x, y) of the output, from a grim screenshot."""
        data = self.run(["grim", "-t", "ppm", "-g", "%d,%d 1x1" % (x, y), "-"]).stdout
        # P6 <w> <h> <max> then the pixels.
        fields = data.split(maxsplit=4)
        return tuple(fields[4][:3])

    def hud_visible(self):
        """True while the HUD covers the middle of the screen (it is centred; just under its top edge lies its light backdrop, and the windows beneath
        are the client's dark blue or foot's dark background)."""
        r, g, b = self.pixel(640, 357)
        return min(r, g, b) > 200

    def screenshot(self, path):
        self.run(["grim", path])
