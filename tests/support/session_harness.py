"""What the end-to-end harnesses of the Wayland desktops (sway, KWin, GNOME Shell) share: the
unprivileged account the compositors run as, a private temporary folder with the runtime, home,
configuration and data folders and the environment that points at them, and tarry started as at
login. The processes, tarry's preferences and logs, and the command line of a case file are those
of every desktop (tests/e2e/harness.py).

sway refuses to run as root, and the other compositors are run alike. Run as root (as CI does),
the harness creates an unprivileged user (`tarry-e2e`) once and runs the compositor and every
client as that user, from copies of the binaries in a temporary folder that user owns.
"""

import json
import os
import pwd
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from harness import (SKIP, Failure, LoggedClient, PrivateDesktop, Skip, case_registry, check,  # noqa: E402,F401
                     settle, stop_all, wait_for)
from harness import run_case_file as run_session_cases  # noqa: E402,F401

USER = "tarry-e2e"
# What the test processes keep of the caller's environment.
KEPT_ENV = ("PATH", "TERM", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS")


def ensure_user():
    """The unprivileged user to run the desktop as; created once when missing. None: run as
    ourselves."""
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


class ReadyClient(LoggedClient):
    """A test application that logs "ready" once its window is shown."""

    ready_timeout = 10

    def __init__(self, desktop, name, args):
        super().__init__(desktop, name, args)
        wait_for(name + " to show its window", lambda: self.has("ready"), timeout=self.ready_timeout)

    def has(self, word):
        return any(words[0] == word for _, words in self.lines())


class SessionDesktop(PrivateDesktop):
    """A private desktop session. A subclass names its compositor's output (`compositor`, for the
    failure report), its client class (`Client`), and starts its processes in `start`, a callable
    given to `__init__`; `self.tarry` is set by then (None: tarry is not run)."""

    compositor = None
    report_tail = 3000
    tarry_start_timeout = 10.0
    Client = ReadyClient

    def __init__(self, prefix, start):
        self.account = ensure_user()
        self.tmp = tempfile.mkdtemp(prefix=prefix)
        self.procs = []
        self.clients = []
        self.tarry = None
        self.tarry_proc = None
        signal.signal(signal.SIGTERM, self._on_signal)
        try:
            start()
            logs = os.path.join(self.tmp, "logs")
            os.makedirs(logs)
            self.chown(logs)
            if self.tarry:
                self.defaults("write", "logDir", json.dumps(logs))
                # The first-run consent is given, and no tray icon: the guard is what these cases see.
                self.defaults("write", "consentVersion", "1")
                self.defaults("write", "showMenuBar", "false")
        except BaseException:
            self.close()
            raise

    # ---- the private folder ----

    def make_folders(self):
        """bin (returned), run, home, config and data/applications in the temporary folder."""
        bindir = os.path.join(self.tmp, "bin")
        os.makedirs(bindir)
        os.makedirs(os.path.join(self.tmp, "run"), mode=0o700)
        os.makedirs(os.path.join(self.tmp, "home"))
        os.makedirs(os.path.join(self.tmp, "data", "applications"))
        return bindir

    def write_file(self, path, text):
        with open(os.path.join(self.tmp, path), "w", encoding="utf-8") as f:
            f.write(text)

    def hand_over(self):
        """Gives the temporary folder and all in it to the test user, readable by it alone."""
        self.chown(self.tmp)
        os.chmod(self.tmp, 0o700)
        for root, dirs, files in os.walk(self.tmp):
            for name in dirs + files:
                self.chown(os.path.join(root, name))
            os.chmod(root, 0o700)

    def make_env(self, keep=(), **values):
        """The environment of every process: the private folders, a C.UTF-8 locale, Qt on Wayland,
        then `values`; of the caller's, only KEPT_ENV and `keep`."""
        env = {name: value for name, value in os.environ.items() if name in KEPT_ENV + tuple(keep)}
        env.update({
            "HOME": os.path.join(self.tmp, "home"),
            "USER": self.account.pw_name if self.account else os.environ.get("USER", ""),
            "XDG_CONFIG_HOME": os.path.join(self.tmp, "config"),
            "XDG_DATA_HOME": os.path.join(self.tmp, "data"),
            "XDG_DATA_DIRS": "/usr/local/share:/usr/share",
            "XDG_RUNTIME_DIR": os.path.join(self.tmp, "run"),
            "LC_ALL": "C.UTF-8",
            "QT_QPA_PLATFORM": "wayland",
        })
        env.update(values)
        self.env = env
        return env

    # ---- the program ----

    def start_tarry(self, extra_env=None):
        before = self.events_log().count("keyboard guard on")
        # As the session starts it at login: no window of its own takes the focus while the guard works.
        self.tarry_proc = self.spawn([self.tarry, "--autostart"], "tarry", extra_env)
        wait_for("tarry to install its keyboard guard",
                 lambda: self.events_log().count("keyboard guard on") > before or self.tarry_proc.poll() is not None,
                 timeout=self.tarry_start_timeout)
        if self.tarry_proc.poll() is not None:
            raise Failure("tarry ended at start: " + self.output("tarry"))
        return self.tarry_proc

    def start_client(self, name, *args):
        client = self.Client(self, name, args)
        self.clients.append(client)
        self.await_keyboard(name, client)
        return client

    def await_keyboard(self, name, client):
        """Waits until keys typed now reach `client`; a compositor that focuses a new window at
        once needs nothing here."""

    def desktop_report(self):
        return "--- %s output (end):\n%s" % (self.compositor, self.output(self.compositor)[-self.report_tail:])

    # ---- the user's hands and eyes ----

    def keys(self, *steps, background=False):
        """Types `steps`: "+name" presses a key ("ctrl", "shift", "alt", "q", "w", ...), "-name"
        releases it, a number waits that many milliseconds. In the background: the process."""
        raise NotImplementedError

    def type(self, key, mods=(), hold_ms=30, background=False):
        """Presses mods+key, holds it `hold_ms`, and releases it (key first)."""
        steps = ["+%s" % m for m in mods] + ["+%s" % key, hold_ms, "-%s" % key] + ["-%s" % m for m in reversed(mods)]
        return self.keys(*steps, background=background)

    def hold(self, key, ms, mods=("ctrl",)):
        return self.type(key, mods, ms, background=True)

    def hud_visible(self):
        """True while the HUD covers the middle of the screen (it is centred; just under its top
        edge lies its light backdrop, and the windows beneath are the client's dark blue or a
        terminal's dark background)."""
        r, g, b = self.pixel(640, 357)
        return min(r, g, b) > 200

    def check_hud_shown(self, tarry):
        """Checks of a desktop's own while the HUD shows."""

