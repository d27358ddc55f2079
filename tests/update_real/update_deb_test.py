#!/usr/bin/env python3
"""The Debian-package update path end to end: a copy that the package `tarry` lists among its files
downloads a signed .deb from a local https server and hands it to the system installer. Stub
`pkexec` and `xdg-open` scripts come first in PATH and record how they were called; a private
session bus without a file manager, one with a stand-in org.freedesktop.FileManager1, and no bus
at all show how the folder is opened.

usage: update_deb_test.py PROBE SIGN_TOOL
       update_deb_test.py --file-manager RECORD   (the stand-in file manager, run by the test)
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

FILE_MANAGER = "org.freedesktop.FileManager1"
NOT_INSTALLED = "ALERT The update was not installed | "
LEFT_FOR_USER = " Install the checked package with your package manager. It is shown in its folder now:\n%s"


def file_manager(record):
    """Owns org.freedesktop.FileManager1 on the session bus and records each ShowItems call."""
    import dbus
    import dbus.service
    from dbus.mainloop.glib import DBusGMainLoop
    from gi.repository import GLib

    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()

    class FileManager(dbus.service.Object):
        @dbus.service.method(FILE_MANAGER, in_signature="ass", out_signature="")
        def ShowItems(self, uris, startup_id):
            with open(record, "a") as f:
                f.write(json.dumps([[str(u) for u in uris], str(startup_id)]) + "\n")

    name = dbus.service.BusName(FILE_MANAGER, bus)  # noqa: F841 (kept for the life of the loop)
    FileManager(bus, "/org/freedesktop/FileManager1")
    print("ready", flush=True)
    GLib.MainLoop().run()


def start_bus(work):
    """A session bus of its own that activates nothing (a real file manager must not answer)."""
    config = os.path.join(work, "bus.conf")
    with open(config, "w") as f:
        f.write("""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=%s</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
</busconfig>
""" % os.path.join(work, "bus"))
    bus = subprocess.Popen(["dbus-daemon", "--config-file=" + config, "--nofork", "--print-address=1"],
                           stdout=subprocess.PIPE, text=True)
    return bus, bus.stdout.readline().strip()


def wait_for_file(path, timeout=10.0):
    """The folder is opened by a detached process that may outlive the probe."""
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if os.path.exists(path) and os.path.getsize(path) > 0:
            return True
        time.sleep(0.1)
    return False


def read_lines(path):
    return open(path).read().splitlines() if os.path.exists(path) else []


def main():
    import update_https_test as base  # the CA, the https server, signing, the fake program

    work = base.WORK
    ca, cert, key = base.make_certs()
    server = base.start_server(cert, key)
    port = server.server_address[1]
    secret = os.path.join(work, "sk")
    pk = base.run(base.SIGN, "keygen", secret).strip()
    package = b"!<arch>\ndebian-binary   " + os.urandom(4000)  # the installer is a stub: any bytes
    base.publish(package, base.sign(package, secret), port, name="/dl/tarry_2.0_amd64.deb")

    bus, address = start_bus(work)
    tools = os.path.join(work, "tools")  # what the stubs leave of the system in PATH
    os.makedirs(tools)
    for program in ("dbus-send", "python3"):
        os.symlink(shutil.which(program) if program != "python3" else "/usr/bin/python3",
                   os.path.join(tools, program))

    def run_case(pkexec_status, bus_address):
        """A copy installed by the package; pkexec exits with `pkexec_status` (None: no pkexec)."""
        root = tempfile.mkdtemp(dir=work, prefix="deb-")
        exe = os.path.join(root, "usr", "bin", "tarry")
        os.makedirs(os.path.dirname(exe))
        with open(exe, "w") as f:
            f.write(base.program("2.0"))
        os.chmod(exe, 0o755)
        stubs = os.path.join(root, "stubs")
        os.makedirs(stubs)
        # dpkg-query answers for the package `tarry` with its file list, which names this copy.
        with open(os.path.join(stubs, "dpkg-query"), "w") as f:
            f.write("#!/bin/sh\n[ \"$*\" = '--listfiles tarry' ] || exit 1\nprintf '/.\\n/usr\\n/usr/bin\\n%s\\n'\n"
                    % exe)
        os.chmod(os.path.join(stubs, "dpkg-query"), 0o755)
        stubs_said = {n: os.path.join(root, n + ".args") for n in ("pkexec", "xdg-open")}
        for name, status in (("pkexec", pkexec_status), ("xdg-open", 0)):
            if status is None:
                continue
            with open(os.path.join(stubs, name), "w") as f:
                f.write("#!/bin/sh\nprintf '%%s\\n' \"$@\" >> '%s'\nexit %d\n" % (stubs_said[name], status))
            os.chmod(os.path.join(stubs, name), 0o755)
        state = os.path.join(root, "state")
        env = dict(os.environ, SSL_CERT_FILE=ca, XDG_STATE_HOME=state, PATH=stubs + ":" + tools,
                   DBUS_SESSION_BUS_ADDRESS=bus_address)
        done = subprocess.run([base.PROBE, "--server", "https://127.0.0.1:%d" % port, "--version", "1.0",
                               "--key", pk, "--exe", exe, "--start-timeout", "15"],
                              capture_output=True, text=True, env=env, timeout=120)
        deb = os.path.join(state, "tarry", "updates", "2.0", "tarry_2.0_amd64.deb")
        return done, root, deb, stubs_said

    expect = base.expect
    no_bus = "unix:path=" + os.path.join(work, "no-bus")

    # pkexec succeeds: the verified package reaches apt-get by its absolute path; the new copy runs.
    done, root, deb, said = run_case(0, address)
    expect(read_lines(said["pkexec"]) == ["apt-get", "install", "-y", deb] and os.path.isabs(deb),
           "the package goes to pkexec apt-get install -y <absolute path>", done)
    expect(done.returncode == 0 and "QUIT" in done.stdout, "installed: the old copy quits once the new one runs",
           done)
    expect("2.0 started" in "\n".join(read_lines(os.path.join(root, "marker"))),
           "installed: the program was started again", done)
    expect(not os.path.exists(said["xdg-open"]), "installed: no folder is opened", done)

    # Each refusal tells its reason, keeps the checked package and opens its folder: through
    # xdg-open when no file manager answers on the bus, or when there is no bus at all.
    refusals = [
        (126, address, "Authentication was dismissed."),
        (127, address, "No authentication agent is running, or this user may not install packages."),
        (100, no_bus, "The package installer failed (exit status 100)."),
        (None, no_bus, "The system's installer cannot be asked for permission (pkexec is missing)."),
    ]
    for status, bus_address, why in refusals:
        name = "pkexec missing" if status is None else "pkexec exits %d" % status
        done, root, deb, said = run_case(status, bus_address)
        expect(NOT_INSTALLED + why + LEFT_FOR_USER % deb in done.stdout, name + ": the user is told why", done)
        expect(done.returncode == 1 and "QUIT" not in done.stdout, name + ": the running copy stays", done)
        expect(os.path.isfile(deb), name + ": the checked package is left for the user", done)
        expect(wait_for_file(said["xdg-open"]) and read_lines(said["xdg-open"]) == [os.path.dirname(deb)],
               name + ": its folder is opened", done)
        if status is not None:
            expect(read_lines(said["pkexec"]) == ["apt-get", "install", "-y", deb], name + ": pkexec was asked",
                   done)

    # A file manager on the bus shows the package selected, and xdg-open is left alone.
    record = os.path.join(work, "show-items")
    manager = subprocess.Popen(["/usr/bin/python3", os.path.abspath(__file__), "--file-manager", record],
                               env=dict(os.environ, DBUS_SESSION_BUS_ADDRESS=address), stdout=subprocess.PIPE,
                               text=True)
    expect(manager.stdout.readline().strip() == "ready", "the stand-in file manager is on the bus")
    done, root, deb, said = run_case(126, address)
    expect(wait_for_file(record), "file manager: ShowItems was called", done)
    expect([json.loads(line) for line in read_lines(record)] == [[["file://" + deb], ""]],
           "file manager: the package's file URI is shown", done)
    time.sleep(1)  # xdg-open would follow the answer at once
    expect(not os.path.exists(said["xdg-open"]), "file manager: xdg-open is not run as well", done)
    expect(os.path.isfile(deb), "file manager: the checked package is left for the user", done)

    manager.terminate()
    manager.wait()
    bus.terminate()
    bus.wait()
    server.shutdown()
    shutil.rmtree(work, ignore_errors=True)
    if base.failures:
        print("\n".join(base.failures))
        return 1
    return 0


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "--file-manager":
        file_manager(sys.argv[2])
    else:
        sys.exit(main())
