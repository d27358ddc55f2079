#!/usr/bin/python3
"""The tray item as a StatusNotifier host sees it.

Run inside a private session bus (dbus-run-session). It registers an org.kde.StatusNotifierWatcher,
starts a private Xvfb and tarry-shell-demo, waits for the item to register, then reads the item's
icon name and its menu through com.canonical.dbusmenu, clicks "Pause Protection → For 15 minutes"
and "Protect Ctrl+Q" and checks what the item, the menu and the program's state show.

    dbus-run-session -- /usr/bin/python3 tray_host_test.py demo PATH-TO-tarry-shell-demo
    dbus-run-session -- /usr/bin/python3 tray_host_test.py tarry PATH-TO-tarry
    dbus-run-session -- /usr/bin/python3 tray_host_test.py late PATH-TO-tarry-shell-demo

"late" starts the watcher a second after the program, as a panel that starts after Tarry at login
does: the item must still appear over D-Bus rather than settle for XEmbed.

With "tarry" the real program runs (with a private configuration, consent given) and the state is
read back from its preferences with `tarry defaults read`; the header row must then say the
keyboard guard is active, which only the real guard can report.
"""
import json
import os
import shutil
import subprocess
import sys
import threading
import time

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

import private_x

WATCHER = "org.kde.StatusNotifierWatcher"
ITEM = "org.kde.StatusNotifierItem"
MENU = "com.canonical.dbusmenu"


class Watcher(dbus.service.Object):
    """The smallest StatusNotifierWatcher that says a host is there."""

    def __init__(self, bus):
        self.items = []
        name = dbus.service.BusName(WATCHER, bus)
        super().__init__(name, "/StatusNotifierWatcher")

    @dbus.service.method(WATCHER, in_signature="s", out_signature="", sender_keyword="sender")
    def RegisterStatusNotifierItem(self, service, sender=None):
        # Qt passes its object path or its service name; the sender is the connection either way.
        self.items.append((sender, service if service.startswith("/") else "/StatusNotifierItem"))
        self.StatusNotifierItemRegistered(sender + service)

    @dbus.service.method(WATCHER, in_signature="s", out_signature="")
    def RegisterStatusNotifierHost(self, service):
        pass

    @dbus.service.signal(WATCHER, signature="s")
    def StatusNotifierItemRegistered(self, service):
        pass

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface, prop):
        return self.GetAll(interface)[prop]

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return {
            "RegisteredStatusNotifierItems": dbus.Array([s + p for s, p in self.items], signature="s"),
            "IsStatusNotifierHostRegistered": dbus.Boolean(True),
            "ProtocolVersion": dbus.Int32(0),
        }

    @dbus.service.method(dbus.INTROSPECTABLE_IFACE, in_signature="", out_signature="s")
    def Introspect(self):
        return """<node><interface name="org.kde.StatusNotifierWatcher">
  <method name="RegisterStatusNotifierItem"><arg type="s" direction="in"/></method>
  <method name="RegisterStatusNotifierHost"><arg type="s" direction="in"/></method>
  <property name="RegisteredStatusNotifierItems" type="as" access="read"/>
  <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
  <property name="ProtocolVersion" type="i" access="read"/>
  <signal name="StatusNotifierItemRegistered"><arg type="s"/></signal>
</interface></node>"""


class Failure(Exception):
    pass


def pump(seconds):
    end = time.monotonic() + seconds
    context = GLib.MainContext.default()
    while time.monotonic() < end:
        context.iteration(False)
        time.sleep(0.005)


def wait_for(what, condition, timeout=10.0):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        pump(0.02)
    raise Failure("timed out waiting for " + what)


def start_x():
    started = private_x.start_x()
    if started is None:
        raise Failure("Xvfb did not start")
    return started


class Demo:
    def __init__(self, argv, env):
        self.lines = []
        self.proc = subprocess.Popen(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.append(line.strip())

    def state(self):
        states = [l for l in self.lines if l.startswith("state ")]
        return dict(kv.split("=", 1) for kv in states[-1].split()[1:]) if states else {}


class Tarry:
    """The real program on a private configuration; its state read from its preferences."""

    def __init__(self, binary, env):
        self.binary = binary
        self.tmp = __import__("tempfile").mkdtemp(prefix="tarry-tray-")
        runtime = os.path.join(self.tmp, "run")
        os.mkdir(runtime, 0o700)
        self.env = dict(env, XDG_CONFIG_HOME=os.path.join(self.tmp, "config"), XDG_RUNTIME_DIR=runtime,
                        XDG_DATA_HOME=os.path.join(self.tmp, "data"))
        self.defaults("write", "consentVersion", "1")
        self.defaults("write", "all.saved", "2")
        self.proc = subprocess.Popen([binary], env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def defaults(self, *args):
        out = subprocess.run([self.binary, "defaults"] + list(args), env=self.env, capture_output=True, text=True)
        return out.stdout.strip()

    def state(self):
        enabled = self.defaults("read", "enabled")
        until = self.defaults("read", "pauseUntil")
        return {"enabled": "0" if enabled == "false" else "1",
                "paused": "1" if until and json.loads(until) > time.time() else "0"}

    def close(self):
        self.proc.terminate()
        self.proc.wait()
        shutil.rmtree(self.tmp, ignore_errors=True)


def labels(layout):
    """id → label of every item of a GetLayout answer, depth first."""
    out = {}

    def walk(node):
        ident, props, children = node
        if "label" in props:
            out[int(ident)] = str(props["label"]).replace("_", "")
        for child in children:
            walk(child)

    walk(layout)
    return out


def visible_labels(layout):
    out = []

    def walk(node):
        ident, props, children = node
        if props.get("visible", True) and "label" in props:
            out.append(str(props["label"]).replace("_", ""))
        for child in children:
            walk(child)

    walk(layout)
    return out


def main():
    kind, binary = sys.argv[1], sys.argv[2]
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    watcher = Watcher(bus) if kind != "late" else None
    server, display = start_x()
    env = dict(os.environ, DISPLAY=display, QT_QPA_PLATFORM="xcb")
    if kind == "late":
        demo = Demo([binary, "--saved", "2", "--wait-ms", "20000"], env)
        wait_for("the program to start", lambda: demo.state().get("tray") == "none")
        pump(1.0)
        if demo.state().get("tray") != "none":
            raise Failure("the item did not wait for a tray host: %r" % demo.state())
        watcher = Watcher(bus)
        today_saved = "2"
    elif kind == "tarry":
        # The real program wants a window manager that announces the active window, as every
        # desktop has; without one its menu rightly says the guard is not working.
        window_manager = subprocess.Popen(["openbox"], env=env, stdout=subprocess.DEVNULL,
                                          stderr=subprocess.DEVNULL)
        wait_for("the window manager", lambda: subprocess.run(
            ["xprop", "-root", "_NET_SUPPORTING_WM_CHECK"], env=env, capture_output=True,
            text=True).stdout.find("window id") >= 0)
        demo = Tarry(binary, env)
        today_saved = "0"
    else:
        demo = Demo([binary, "--saved", "2"], env)
        today_saved = "2"
    try:
        sender, path = wait_for("the item to register", lambda: watcher.items and watcher.items[0])
        item = bus.get_object(sender, path)
        props = dbus.Interface(item, dbus.PROPERTIES_IFACE)
        icon = lambda: str(props.Get(ITEM, "IconName"))
        wait_for("the enabled icon", lambda: icon() == "command.circle.fill")
        # Hosts and screen readers name the item by its tooltip ("Tarry · …"); its Title is the
        # application name.
        if kind == "tarry" and str(props.Get(ITEM, "Title")) != "Tarry":
            raise Failure("the item's title is %r" % props.Get(ITEM, "Title"))
        tooltip = props.Get(ITEM, "ToolTip")
        if "Tarry · %s blocked today" % today_saved not in str(tooltip[2]) + str(tooltip[3]):
            raise Failure("tooltip %r" % (tooltip,))
        if len(props.Get(ITEM, "IconPixmap")) == 0:
            raise Failure("no icon pixels for hosts without the icon name")

        menu = dbus.Interface(bus.get_object(sender, str(props.Get(ITEM, "Menu"))), MENU)
        menu.AboutToShow(0)
        layout = menu.GetLayout(0, -1, [])[1]
        shown = visible_labels(layout)
        expected = ["Active, hold Ctrl+Q 2s", "2 accidental quits blocked · %s today" % today_saved, "Protect Ctrl+Q",
                    "Pause Protection", "For 15 minutes", "For 1 hour", "Until tomorrow", "Recently Quit",
                    "Nothing quit yet", "Statistics…", "App Rules…", "Quit All Other Apps…", "Settings…",
                    "About Tarry", "Check for Updates…", "Quit Tarry"]
        if shown != expected:
            raise Failure("menu rows %r" % shown)
        ids = {label: ident for ident, label in labels(layout).items()}

        menu.Event(ids["For 15 minutes"], "clicked", dbus.Int32(0, variant_level=1), dbus.UInt32(0))
        wait_for("the paused icon", lambda: icon() == "pause.circle")
        wait_for("the paused state", lambda: demo.state().get("paused") == "1")
        menu.AboutToShow(0)
        shown = visible_labels(menu.GetLayout(0, -1, [])[1])
        if shown[0] != "Paused" or not any(l.startswith("Paused until today, ") for l in shown) \
                or "Resume Now" not in shown:
            raise Failure("paused menu rows %r" % shown)

        menu.Event(ids["Protect Ctrl+Q"], "clicked", dbus.Int32(0, variant_level=1), dbus.UInt32(0))
        wait_for("protection off", lambda: demo.state().get("enabled") == "0")
        layout = menu.GetLayout(0, -1, [])[1]
        toggle = [node for node in layout[2] if int(node[0]) == ids["Protect Ctrl+Q"]][0]
        if int(toggle[1].get("toggle-state", -1)) != 0:
            raise Failure("switch still checked: %r" % (toggle[1],))
        # Still paused: the pause wins over "off" for the icon.
        if icon() != "pause.circle":
            raise Failure("icon %s while paused and off" % icon())

        menu.Event(ids["Resume Now"], "clicked", dbus.Int32(0, variant_level=1), dbus.UInt32(0))
        wait_for("the off icon", lambda: icon() == "command.circle")
        print("tray host test (%s): ok %r" % (kind, demo.state()))
    finally:
        if kind == "tarry":
            demo.close()
        else:
            demo.proc.terminate()
            demo.proc.wait()
        if kind == "tarry":
            window_manager.terminate()
            window_manager.wait()
        server.terminate()
        server.wait()


if __name__ == "__main__":
    try:
        main()
    except Failure as failure:
        print("FAILED:", failure)
        sys.exit(1)
