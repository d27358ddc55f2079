"""A private headless sway for end-to-end runs of tarry on Wayland: sway with the headless
backend, the Wayland test client, foot, tarry with its own configuration, and wtype as the user's
hands. The account, the private folder, the processes and the case runner are those of
tests/support/session_harness.py.
"""

import glob
import json
import os
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from session_harness import Failure, SessionDesktop, Skip, wait_for  # noqa: E402,F401
from session_cases import CLIENT_ENTRY, CLIENT_ID, Client  # noqa: E402,F401

SWAY_CONFIG = """output HEADLESS-1 resolution 1280x800 position 0 0
xwayland disable
default_border normal
focus_on_window_activation focus
"""


class SwayDesktop(SessionDesktop):
    compositor = "sway"
    Client = Client

    def __init__(self, tarry, client, typist=None):
        if not shutil.which("sway"):
            raise Skip("sway is not installed")
        super().__init__("tarry-sway-", lambda: self._start(tarry, client, typist))

    def _start(self, tarry, client, typist):
        # The build folder may not be readable by the test user: run copies.
        bindir = self.make_folders()
        self.tarry = shutil.copy(tarry, bindir)
        self.client = shutil.copy(client, bindir)
        self.typist = shutil.copy(typist, bindir) if typist else None
        self.write_file(os.path.join("data", "applications", CLIENT_ID + ".desktop"), CLIENT_ENTRY)
        self.write_file("sway.conf", SWAY_CONFIG)
        self.hand_over()
        self.make_env(WLR_BACKENDS="headless", WLR_LIBINPUT_NO_DEVICES="1", WLR_RENDERER="pixman")
        self._start_sway()

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

    # ---- the user's hands and eyes ----

    def wtype(self, *args, background=False):
        """Types through wtype (its own virtual keyboard, as a physical one would)."""
        if background:
            return self.spawn(["wtype"] + list(args), "wtype")
        self.run(["wtype"] + list(args))
        return None

    def keys(self, *steps, background=False):
        args = []
        for step in steps:
            if isinstance(step, int):
                args += ["-s", str(step)]
            else:
                modifier = step[1:] in ("ctrl", "shift", "alt", "logo")
                args += [("-M" if modifier else "-P") if step[0] == "+" else ("-m" if modifier else "-p"), step[1:]]
        return self.wtype(*args, background=background)

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

    def focused_pid(self):
        return next((pid for app, pid, focused in self.views() if focused), None)

    def focus(self, client):
        self.run(["swaymsg", "[pid=%d] focus" % client.process.pid])

    def check_hud_shown(self, tarry):
        if any(pid == tarry.pid for _, pid, _ in self.views()):
            raise Failure("the HUD is a window in the tiling tree")

    def pixel(self, x, y):
        """The (r, g, b) at (x, y) of the output, from a grim screenshot."""
        data = self.run(["grim", "-t", "ppm", "-g", "%d,%d 1x1" % (x, y), "-"]).stdout
        # P6 <w> <h> <max> then the pixels.
        fields = data.split(maxsplit=4)
        return tuple(fields[4][:3])

    def screenshot(self, path):
        self.run(["grim", path])
