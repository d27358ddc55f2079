"""A private X11 desktop for end-to-end runs of tarry: Xvfb on a free display, openbox, the
tarry-test-client, tarry itself with its own configuration, and xdotool as the user's hands.

Every process started here is ended by `close()` (also on SIGTERM, which ctest sends on a
timeout), and the temporary directory is removed.
"""

import argparse
import json
import os
import random
import shutil
import signal
import subprocess
import tempfile
import time

CLIENT_ENTRY = """[Desktop Entry]
Type=Application
Name=Tarry Test Client
Exec=tarry-test-client
Icon=utilities-terminal
StartupWMClass=TarryTestClient
"""
CLIENT_ID = "org.tarry.TestClient"


class Failure(Exception):
    pass


def wait_for(what, condition, timeout=10.0, interval=0.02):
    """Polls `condition` until it returns a true value; fails with `what` after `timeout`."""
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise Failure("timed out waiting for " + what)
        time.sleep(interval)


def check(condition, message):
    if not condition:
        raise Failure(message)


def settle(seconds=0.4):
    """Time for events to travel between the processes; never a measured quantity."""
    time.sleep(seconds)


def case_registry():
    """(cases, case): the cases by name, and the decorator that adds one (under its own name or
    `name`)."""
    cases = {}

    def case(fn, name=None):
        cases[name or fn.__name__] = fn
        return fn
    return cases, case


def stop_all(procs):
    """Ends the processes, newest first: a polite SIGTERM, then SIGKILL after 5 s."""
    for proc in reversed(procs):
        if proc.poll() is None:
            proc.terminate()
    for proc in reversed(procs):
        try:
            proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


def ready_windows(log):
    """Window ids of the client that logged to `log`, once it mapped them."""
    try:
        with open(log, encoding="utf-8") as f:
            for line in f:
                words = line.split()
                if len(words) >= 2 and words[1] == "ready":
                    return [int(w) for w in words[2:]]
    except FileNotFoundError:
        pass
    return None


class LoggedClient:
    """A running test application that writes "<µs> <word> …" lines to its log (the X11 and the
    Wayland test clients alike)."""

    def __init__(self, desktop, name, args):
        self.log = os.path.join(desktop.tmp, name + ".log")
        self.process = desktop.spawn([desktop.client, "--log", self.log] + list(args), name)

    def lines(self):
        """(monotonic seconds, words) for every line logged so far."""
        out = []
        try:
            with open(self.log, encoding="utf-8") as f:
                for line in f:
                    parts = line.split()
                    if len(parts) >= 2:
                        out.append((int(parts[0]) / 1e6, parts[1:]))
        except FileNotFoundError:
            pass
        return out

    def closed(self):
        return [int(words[1]) for at, words in self.lines() if words[0] == "close"]

    def alive(self):
        return self.process.poll() is None


class Client(LoggedClient):
    """A running tarry-test-client and its key log."""

    def __init__(self, harness, name, args):
        super().__init__(harness, name, args)
        self.windows = wait_for(name + " to map its windows", self._ready, timeout=5)

    def _ready(self):
        return ready_windows(self.log)

    def presses(self, keycode=None):
        """(time, keycode, state, keysym) of every key press received."""
        out = []
        for at, words in self.lines():
            if words[0] == "press" and (keycode is None or int(words[1]) == keycode):
                out.append((at, int(words[1]), int(words[2], 16), words[3]))
        return out

class PrivateDesktop:
    """What every private desktop of these tests has (this X11 one, and those of
    tests/support/session_harness.py): a temporary folder `tmp`, the processes started in it
    (`procs`, their output in <name>.out, ended by `close()`, also on SIGTERM), tarry's preferences,
    counters and events log, and the logs of the test clients (`clients`)."""

    # Ends the processes oldest first rather than newest first.
    stop_oldest_first = False
    # The unprivileged user the processes run as; None: as ourselves.
    account = None

    def chown(self, path):
        if self.account:
            os.chown(path, self.account.pw_uid, self.account.pw_gid)

    def _user_args(self):
        if not self.account:
            return {}
        return {"user": self.account.pw_uid, "group": self.account.pw_gid, "extra_groups": []}

    def spawn(self, argv, name, extra_env=None):
        """Starts argv (as the test user), its output in <name>.out; `extra_env` values of None
        remove a variable."""
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

    def defaults(self, *args):
        """Runs `tarry defaults ...`; its standard output."""
        return self.run([self.tarry, "defaults"] + list(args), timeout=20).stdout.decode().strip()

    def counter(self, name):
        """The all-time counter `name`; 0 while it has never been written."""
        result = self.run([self.tarry, "defaults", "read", "all." + name], timeout=20, check=False)
        text = result.stdout.decode().strip()
        return int(text) if result.returncode == 0 and text else 0

    def _on_signal(self, signum, frame):
        self.close()
        raise SystemExit(128 + signum)

    def close(self):
        stop_all(list(reversed(self.procs)) if self.stop_oldest_first else self.procs)
        self.procs = []
        shutil.rmtree(self.tmp, ignore_errors=True)

    def output(self, name):
        try:
            with open(os.path.join(self.tmp, name + ".out"), encoding="utf-8", errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def events_log(self):
        try:
            with open(os.path.join(self.tmp, "logs", "events.log"), encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def desktop_report(self):
        """The window manager's or compositor's part of `report()`."""
        return ""

    def report(self):
        """What the processes said, for a failure message."""
        parts = ["--- tarry output:\n" + self.output("tarry"), "--- events.log:\n" + self.events_log(),
                 self.desktop_report()]
        for client in self.clients:
            try:
                with open(client.log, encoding="utf-8") as f:
                    parts.append("--- %s:\n%s" % (os.path.basename(client.log), f.read()))
            except FileNotFoundError:
                pass
        return "\n".join(parts)


class Harness(PrivateDesktop):
    def __init__(self, tarry, client, window_manager=True):
        self.tarry = tarry
        self.client = client
        self.tmp = tempfile.mkdtemp(prefix="tarry-e2e-")
        self.procs = []
        self.tarry_proc = None
        self.clients = []
        env = dict(os.environ)
        for name in ("WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "DISPLAY", "TARRY_DEBUG_STALL_ON_PRESS"):
            env.pop(name, None)
        runtime = os.path.join(self.tmp, "run")
        os.makedirs(runtime, mode=0o700)
        env.update({
            "XDG_CONFIG_HOME": os.path.join(self.tmp, "config"),
            "XDG_DATA_HOME": os.path.join(self.tmp, "data"),
            "XDG_RUNTIME_DIR": runtime,
            "LC_ALL": "C.UTF-8",
        })
        self.env = env
        apps = os.path.join(self.tmp, "data", "applications")
        os.makedirs(apps)
        with open(os.path.join(apps, CLIENT_ID + ".desktop"), "w", encoding="utf-8") as f:
            f.write(CLIENT_ENTRY)
        signal.signal(signal.SIGTERM, self._on_signal)
        try:
            self._start_x()
            if window_manager:
                self.start_window_manager()
            os.makedirs(os.path.join(self.tmp, "logs"))
            self.defaults("write", "logDir", json.dumps(os.path.join(self.tmp, "logs")))
            # The first-run consent is given; the cases about it take it back.
            self.defaults("write", "consentVersion", "1")
        except BaseException:
            self.close()
            raise

    def _start_x(self):
        # A random display number well above the ones `Xvfb -displayfd` hands out from 0 up: a
        # server that starts while another searches that way can lose its socket file to it.
        for attempt in range(20):
            number = random.randint(200, 999)
            if os.path.exists("/tmp/.X%d-lock" % number) or os.path.exists("/tmp/.X11-unix/X%d" % number):
                continue
            read_end, write_end = os.pipe()
            server = subprocess.Popen(
                ["Xvfb", ":%d" % number, "-displayfd", str(write_end), "-screen", "0", "1280x800x24",
                 "-nolisten", "tcp"],
                pass_fds=(write_end,), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL)
            os.close(write_end)
            with os.fdopen(read_end, "rb") as pipe:
                ready = pipe.readline().strip() == str(number).encode()
            if ready:
                self.procs.append(server)
                break
            server.wait()  # the number was taken after all
        else:
            raise Failure("Xvfb did not start")
        self.env["DISPLAY"] = ":%d" % number

    def start_window_manager(self):
        self.spawn(["openbox", "--sm-disable"], "openbox")
        # openbox loses windows mapped while it starts: it is ready once one gets mapped. The probe
        # stays (as a desktop window, below everything): were it to go, the next client would get
        # its window ids while openbox may still hold the old windows under them.
        for attempt in range(50):
            probe = os.path.join(self.tmp, "probe.log")
            proc = self.spawn([self.client, "--log", probe, "--class", "probe,Probe", "--type", "desktop",
                               "--geometry", "1x1+0+0"],
                              "probe")
            try:
                wait_for("probe", lambda: os.path.exists(probe) and "ready" in open(probe).read(),
                         timeout=0.5)
                return
            except Failure:
                proc.terminate()
                proc.wait()
                self.procs.remove(proc)
        raise Failure("openbox did not start managing windows")


    # ---- the program ----

    def start_tarry(self, extra_env=None, args=()):
        self.tarry_proc = self.spawn([self.tarry] + list(args), "tarry", extra_env)
        wait_for("tarry to install its keyboard guard",
                 lambda: "keyboard guard on" in self.events_log() or self.tarry_proc.poll() is not None)
        if self.tarry_proc.poll() is not None:
            raise Failure("tarry ended at start: " + self.output("tarry"))

    def start_guard(self, extra_env=None):
        """tarry as the session starts it at login, without a tray icon: no window of its own (a
        manual launch opens Settings) takes the focus from the test client, so a case sees the
        guard alone."""
        self.defaults("write", "showMenuBar", "false")
        self.start_tarry(extra_env, args=["--autostart"])

    def start_client(self, name, *args):
        client = Client(self, name, args)
        self.clients.append(client)
        # openbox does not always focus a new window (for one, while it is busy starting up).
        self.activate(client.windows[-1])
        return client

    def desktop_report(self):
        return "--- openbox output:\n" + self.output("openbox")

    # ---- the user's hands ----

    def x(self, *argv):
        subprocess.run(list(argv), env=self.env, check=True, timeout=30,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def key(self, *keys):
        self.x("xdotool", "key", "--clearmodifiers", *keys)

    def keydown(self, keys):
        self.x("xdotool", "keydown", keys)

    def keyup(self, keys):
        self.x("xdotool", "keyup", keys)

    def activate(self, window):
        # A window that has only just been mapped may still lack the properties xdotool reads.
        def attempt():
            result = subprocess.run(["xdotool", "windowactivate", "--sync", str(window)], env=self.env,
                                    capture_output=True, text=True, timeout=10)
            attempt.error = result.stderr
            return result.returncode == 0
        try:
            wait_for("window %d to become active" % window, attempt, timeout=5, interval=0.1)
        except Failure:
            raise Failure("cannot activate window %d: %s" % (window, attempt.error))

    def search(self, *criteria):
        """The ids of the windows `xdotool search` finds. xdotool dies on the first window that
        vanishes while it walks the tree (a program starting or quitting makes and drops windows
        all the time), and prints nothing then; such a walk is simply made again."""
        for attempt in range(20):
            result = subprocess.run(["xdotool", "search"] + list(criteria), env=self.env,
                                    capture_output=True, text=True, timeout=10)
            if "X Error of failed request" not in result.stderr:
                return [int(w) for w in result.stdout.split()]
            time.sleep(0.02)
        raise Failure("xdotool search %s kept failing: %s" % (" ".join(criteria), result.stderr))

    def hud_visible(self):
        """True while the HUD of tarry is mapped: its utility (override-redirect) window; Settings
        and the other windows are normal ones."""
        for window in self.search("--onlyvisible", "--classname", "^tarry$"):
            kind = subprocess.run(["xprop", "-id", str(window), "_NET_WM_WINDOW_TYPE"], env=self.env,
                                  capture_output=True, text=True, timeout=10).stdout
            if "_NET_WM_WINDOW_TYPE_UTILITY" in kind or "_NET_WM_WINDOW_TYPE_NOTIFICATION" in kind:
                return True
        return False


class Skip(Exception):
    """The desktop cannot run on this machine."""


# The exit status ctest reads as "skipped".
SKIP = 77


def run_case_file(cases, options, make_desktop):
    """The command line of a case file: `OPTIONS... CASE` runs one case on a fresh desktop made by
    `make_desktop(args)`, `--list` names them. Returns the exit status: 0 when the case holds, 1
    when it fails, SKIP when the desktop cannot run here."""
    parser = argparse.ArgumentParser()
    for option in options:
        parser.add_argument(option)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("case", nargs="?")
    args = parser.parse_args()
    if args.list:
        print("\n".join(cases))
        return 0
    if args.case not in cases:
        parser.error("unknown case: %s" % args.case)
    try:
        desktop = make_desktop(args)
    except Skip as skip:
        print("SKIP: " + str(skip))
        return SKIP
    try:
        cases[args.case](desktop)
    except Failure as failure:
        print("FAIL %s: %s\n%s" % (args.case, failure, desktop.report()))
        return 1
    finally:
        desktop.close()
    print("ok " + args.case)
    return 0


def run_cases(cases):
    """`--tarry T --client C CASE` on a fresh X11 desktop, with a window manager unless the case
    says `window_manager = False`."""
    return run_case_file(cases, ("--tarry", "--client"),
                         lambda args: Harness(args.tarry, args.client,
                                              getattr(cases[args.case], "window_manager", True)))
