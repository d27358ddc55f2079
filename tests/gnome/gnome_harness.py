"""A private headless GNOME Shell for end-to-end runs of tarry on GNOME (Wayland).

gnome-shell runs as `gnome-shell --headless --wayland --no-x11 --virtual-monitor 1280x800`, as an
unprivileged user (created once when run as root, as for sway), with its own XDG_RUNTIME_DIR, a
private session bus and a second private bus standing in for the system bus (the Shell dies at
start without one). Settings come from a key file (GSETTINGS_BACKEND=keyfile) written before the
Shell starts: Tarry's extension and the test aid (which allows the Shell's Eval method) enabled,
the welcome dialog already shown. The overview is hidden once the Shell is up. Keys are typed
through org.gnome.Mutter.RemoteDesktop (gnome_typist.py); the test application is a GTK 4 app
(gtk_client.py). The account, the private folder, the processes and the case runner are those of
tests/support/session_harness.py.
"""

import ast
import json
import os
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))
from session_harness import Failure, ReadyClient, SessionDesktop, Skip, stop_all, wait_for  # noqa: E402

EXTENSION_UUID = "tarry@tarry.org"
TEST_UUID = "tarry-test@tarry.org"
CLIENT_ID = "org.tarry.GtkClient"
CLIENT_ENTRY = """[Desktop Entry]
Type=Application
Name=Tarry GTK Client
Exec=python3 %s --log %s
Icon=utilities-terminal
"""
# GDK key values the client logs.
GDK_q, GDK_Q, GDK_w = 0x71, 0x51, 0x77


class GtkClient(ReadyClient):
    """The running GTK test client and its key log."""

    ready_timeout = 15

    def presses(self, keyval=None):
        """(time, keyval, ctrl, shift) of every key press that reached the window."""
        return [(at, int(w[1]), w[2] == "1", w[3] == "1") for at, w in self.lines()
                if w[0] == "press" and (keyval is None or int(w[1]) == keyval)]

    def activations(self):
        """(time, active) of every change of the window's focused state, in order."""
        return [(at, w[1] == "1") for at, w in self.lines() if w[0] == "active"]

    def close_requests(self):
        return [at for at, w in self.lines() if w[0] == "close-request"]


class GnomeDesktop(SessionDesktop):
    compositor = "gnome-shell"
    report_tail = 4000
    tarry_start_timeout = 20
    # Ended in the order started: the private buses first, then the Shell and the rest.
    stop_oldest_first = True
    Client = GtkClient

    def __init__(self, tarry, extension_dir, install_extension=True):
        """`install_extension` False: the user has not got Tarry's extension yet (its first run);
        the builds then lie where an installed tarry looks for them. `tarry` None: only the
        extension is tried (extension_smoke.py)."""
        if not shutil.which("gnome-shell"):
            raise Skip("gnome-shell is not installed")
        super().__init__("tarry-gnome-", lambda: self._start(tarry, extension_dir, install_extension))

    def _start(self, tarry, extension_dir, install_extension):
        bindir = self.make_folders()
        self.tarry = shutil.copy(tarry, bindir) if tarry else None
        self.client = os.path.join(bindir, "gtk_client.py")
        shutil.copy(os.path.join(HERE, "gtk_client.py"), self.client)
        self.typist = shutil.copy(os.path.join(HERE, "gnome_typist.py"), bindir)
        data = os.path.join(self.tmp, "data")
        extensions = os.path.join(data, "gnome-shell", "extensions")
        if install_extension:
            shutil.copytree(extension_dir, os.path.join(extensions, EXTENSION_UUID))
        else:
            # <prefix>/bin/tarry finds its builds in <prefix>/share/tarry/gnome-extension.
            shutil.copytree(os.path.dirname(os.path.dirname(extension_dir)),
                            os.path.join(self.tmp, "share", "tarry", "gnome-extension"))
        os.makedirs(extensions, exist_ok=True)
        # GNOME 49 and later tell once that there is no lock screen without GDM, in a banner
        # over the top of the screen: marked as told.
        self.write_file(os.path.join("data", "gnome-shell", "lock-warning-shown"), "")
        aid = "test-extension-esm" if os.sep + "esm" + os.sep in extension_dir else "test-extension"
        shutil.copytree(os.path.join(HERE, aid), os.path.join(extensions, TEST_UUID))
        self.write_file(os.path.join("data", "applications", CLIENT_ID + ".desktop"),
                        CLIENT_ENTRY % (self.client, os.path.join(self.tmp, "relaunched.log")))
        settings = os.path.join("config", "glib-2.0", "settings")
        os.makedirs(os.path.join(self.tmp, settings))
        self.write_file(os.path.join(settings, "keyfile"),
                        "[org/gnome/shell]\n"
                        "enabled-extensions=[%s'%s']\n"
                        "welcome-dialog-last-shown-version='999'\n"
                        "disable-user-extensions=false\n" % ("'%s', " % EXTENSION_UUID if install_extension else "",
                                                             TEST_UUID))
        self.hand_over()
        runtime = os.path.join(self.tmp, "run")
        self.make_env(XDG_SESSION_TYPE="wayland",
                      XDG_CURRENT_DESKTOP="GNOME",
                      GSETTINGS_BACKEND="keyfile",
                      NO_AT_BRIDGE="1",
                      GTK_A11Y="none",
                      DBUS_SESSION_BUS_ADDRESS="unix:path=" + os.path.join(runtime, "bus"),
                      DBUS_SYSTEM_BUS_ADDRESS="unix:path=" + os.path.join(runtime, "system_bus"))
        self._start_buses()
        self._start_shell()
        if install_extension:
            self._check_extension()

    def _start_buses(self):
        runtime = self.env["XDG_RUNTIME_DIR"]
        for name in ("bus", "system_bus"):
            self.spawn(["dbus-daemon", "--session", "--nofork", "--nopidfile",
                        "--address=unix:path=" + os.path.join(runtime, name)], "dbus-" + name)
        wait_for("the private buses", lambda: all(os.path.exists(os.path.join(runtime, n))
                                                  for n in ("bus", "system_bus")), timeout=10)

    def _start_shell(self):
        shell = self.spawn(["gnome-shell", "--headless", "--wayland", "--no-x11",
                            "--virtual-monitor", "1280x800"], "gnome-shell")
        end = time.monotonic() + 40
        while time.monotonic() < end:
            if shell.poll() is not None:
                raise Skip("gnome-shell did not start: " + self.output("gnome-shell")[-3000:])
            if self.eval("true") is True:
                break
            time.sleep(0.2)
        else:
            raise Skip("gnome-shell did not answer in 40 s: " + self.output("gnome-shell")[-3000:])
        displays = [p for p in os.listdir(self.env["XDG_RUNTIME_DIR"])
                    if p.startswith("wayland-") and not p.endswith(".lock")]
        if not displays:
            raise Failure("gnome-shell opened no Wayland display")
        self.env["WAYLAND_DISPLAY"] = displays[0]
        # The Shell shows the overview once its start-up animation is over; hidden before that, it
        # comes back.
        wait_for("the Shell to finish starting", lambda: self.eval("Main.layoutManager._startingUp") is False,
                 timeout=30)
        wait_for("the overview to hide", lambda: self.eval("Main.overview.hide(); Main.overview.visible") is False,
                 timeout=20, interval=0.2)

    def extension_state(self):
        """The Shell's state of Tarry's extension: 1 enabled, -1 unknown to the Shell."""
        return self.eval("Main.extensionManager.lookup('%s')?.state ?? -1" % EXTENSION_UUID)

    def restart_shell(self):
        """Ends the Shell and starts it anew, as a logout and login would (tarry goes with it)."""
        shells = [p for p in self.procs if p.args[0] == "gnome-shell"]
        stop_all(([self.tarry_proc] if self.tarry_proc else []) + shells)
        self.procs = [p for p in self.procs if p not in shells and p is not self.tarry_proc]
        self.tarry_proc = None
        self._start_shell()

    def settings_file(self):
        with open(os.path.join(self.env["XDG_CONFIG_HOME"], "glib-2.0", "settings", "keyfile"), encoding="utf-8") as f:
            return f.read()

    def _check_extension(self):
        state = self.extension_state()
        # 1: enabled.
        if state != 1:
            raise Failure("Tarry's extension is not enabled (state %s): %s" % (state, self.output("gnome-shell")[-3000:]))

    def eval(self, code):
        """Runs JavaScript in the Shell; its result as a Python value, None when it failed."""
        result = subprocess.run(["gdbus", "call", "--session", "--dest", "org.gnome.Shell",
                                 "--object-path", "/org/gnome/Shell", "--method", "org.gnome.Shell.Eval", code],
                                env=self.env, capture_output=True, timeout=10, **self._user_args())
        out = result.stdout.decode(errors="replace").strip()
        # "(true, '<JSON>')": GVariant's text form of a string reads as a Python literal.
        if result.returncode != 0 or not out.startswith("(true, "):
            return None
        try:
            text = ast.literal_eval("(True, " + out[len("(true, "):])[1]
            return json.loads(text) if text else None
        except (ValueError, SyntaxError):
            return None

    def await_keyboard(self, name, client):
        wait_for(name + " to have the focus", lambda: self.focused_pid() == client.process.pid, timeout=10)

    # ---- the user's hands and eyes ----

    def keys(self, *steps, background=False):
        """Types steps on the Shell's seat (see gnome_typist.py)."""
        argv = ["python3", self.typist] + [str(s) for s in steps]
        if background:
            return self.spawn(argv, "typist")
        self.run(argv)
        return None

    def hold(self, key, ms, mods=("ctrl",), background=True):
        steps = ["+" + m for m in mods] + ["+" + key, ms, "-" + key] + ["-" + m for m in reversed(mods)]
        return self.keys(*steps, background=background)

    def windows(self):
        """[pid, wm class, x, y, width, height, focused] of every window the Shell manages."""
        code = ("global.get_window_actors().map(a => a.get_meta_window()).map(w => "
                "{const r = w.get_frame_rect(); return [w.get_pid(), w.get_wm_class(), r.x, r.y, r.width, "
                "r.height, w.has_focus()];})")
        return self.eval(code) or []

    def focused_pid(self):
        pid = self.eval("global.display.focus_window ? global.display.focus_window.get_pid() : 0")
        return pid if isinstance(pid, int) else 0

    def activate(self, pid):
        """Brings the window of `pid` to the front with the focus, as a click on it would."""
        self.eval("global.get_window_actors().map(a => a.get_meta_window()).find(w => w.get_pid() === %d)"
                  ".activate(global.get_current_time()); true" % pid)
        wait_for("the window of %d to have the focus" % pid, lambda: self.focused_pid() == pid, timeout=5)

    def hud_visible(self):
        """True while Tarry's HUD is on screen (shown and not faded out)."""
        return self.eval("Main.uiGroup.get_children().some(a => a.name === 'tarry-hud' && a.visible && "
                         "a.opacity > 0)") is True

    def screenshot(self, path):
        """A PNG of the whole screen, through the Shell's screenshot method (allowed in unsafe mode)."""
        self.run(["gdbus", "call", "--session", "--dest", "org.gnome.Shell.Screenshot", "--object-path",
                  "/org/gnome/Shell/Screenshot", "--method", "org.gnome.Shell.Screenshot.Screenshot",
                  "false", "false", path])
