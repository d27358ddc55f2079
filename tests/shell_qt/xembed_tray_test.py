#!/usr/bin/python3
"""The tray item in an XEmbed tray (trayer), where no StatusNotifier host exists: the icon window
must end up embedded in the tray.

    /usr/bin/python3 xembed_tray_test.py PATH-TO-tarry-shell-demo
"""
import os
import subprocess
import sys
import time

import private_x


def start_x():
    started = private_x.start_x()
    if started is None:
        sys.exit("Xvfb did not start")
    return started


def tree(env, window):
    return subprocess.run(["xwininfo", "-tree", "-id", window], env=env, capture_output=True, text=True).stdout


def main():
    demo_bin = sys.argv[1]
    server, display = start_x()
    # No session bus at all: Qt's only choice is the XEmbed tray.
    env = dict(os.environ, DISPLAY=display, QT_QPA_PLATFORM="xcb", DBUS_SESSION_BUS_ADDRESS="disabled:")
    procs = []
    try:
        procs.append(subprocess.Popen(["trayer", "--edge", "top", "--align", "right", "--widthtype", "pixel",
                                       "--width", "120", "--heighttype", "pixel", "--height", "28"],
                                      env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        trayer = ""
        for _ in range(100):
            found = subprocess.run(["xdotool", "search", "--class", "trayer"], env=env,
                                   capture_output=True, text=True).stdout.split()
            if found:
                trayer = found[0]
                break
            time.sleep(0.05)
        if not trayer:
            sys.exit("FAILED: trayer did not start")
        name = os.path.basename(demo_bin)
        procs.append(subprocess.Popen([demo_bin, "--wait-ms", "0"], env=env, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL))
        # Up to about 30 s: a loaded machine starts Qt programs slowly.
        for _ in range(300):
            if any('"%s"' % name in tree(env, w) for w in
                   subprocess.run(["xdotool", "search", "--class", "trayer"], env=env,
                                  capture_output=True, text=True).stdout.split()):
                print("xembed tray test: ok (the icon is embedded in trayer)")
                return 0
            time.sleep(0.1)
        sys.exit("FAILED: no window of %s inside trayer:\n%s" % (name, tree(env, trayer)))
    finally:
        for proc in reversed(procs):
            proc.terminate()
            proc.wait()
        server.terminate()
        server.wait()


if __name__ == "__main__":
    sys.exit(main())
