#!/usr/bin/env python3
"""The update path end to end against a local https server (a test CA given through
SSL_CERT_FILE, loopback only): a signed release installs into a self-contained folder and the new
copy starts; a tampered archive, a wrong signature, an http address, an oversize download and a new
copy that does not start are each refused with the installed copy unchanged.

usage: update_https_test.py PROBE SIGN_TOOL
"""
import hashlib
import http.server
import json
import os
import shutil
import ssl
import subprocess
import sys
import tarfile
import tempfile
import threading
import time

PROBE, SIGN = sys.argv[1], sys.argv[2]
WORK = tempfile.mkdtemp(prefix="tarry-update-test-")
FILES = {}          # path -> bytes served
SLOW = {"delay": 0.0, "drip": False}


def run(*cmd, **kw):
    return subprocess.run(cmd, check=True, capture_output=True, text=True, **kw).stdout


def make_certs():
    ca_key, ca = os.path.join(WORK, "ca.key"), os.path.join(WORK, "ca.pem")
    key, csr, cert = (os.path.join(WORK, n) for n in ("srv.key", "srv.csr", "srv.pem"))
    ext = os.path.join(WORK, "ext.cnf")
    with open(ext, "w") as f:
        f.write("subjectAltName=IP:127.0.0.1,DNS:localhost\n")
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", ca_key, "-out", ca,
        "-days", "2", "-subj", "/CN=Tarry Test CA")
    run("openssl", "req", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", csr, "-subj", "/CN=127.0.0.1")
    run("openssl", "x509", "-req", "-in", csr, "-CA", ca, "-CAkey", ca_key, "-CAcreateserial", "-out", cert,
        "-days", "2", "-extfile", ext)
    return ca, cert, key


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        body = FILES.get(self.path)
        if body is None:
            self.send_error(404)
            return
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        # A dripping server sends the archive a byte at a time, every 0.2 s.
        step = 1 if SLOW["drip"] and self.path.endswith(".tar.gz") else 64 * 1024
        for i in range(0, len(body), step):
            try:
                self.wfile.write(body[i:i + step])
            except (BrokenPipeError, ConnectionResetError, ssl.SSLError):
                return
            if SLOW["delay"] or step == 1:
                time.sleep(SLOW["delay"] or 0.2)

    def log_message(self, *args):
        pass


class QuietServer(http.server.ThreadingHTTPServer):
    def handle_error(self, request, client_address):
        pass  # a client that hangs up mid-download (the size limit, Cancel) is expected


def start_server(cert, key):
    server = QuietServer(("127.0.0.1", 0), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


FAKE_TARRY = """#!/usr/bin/env python3
import os, sys
with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "marker"), "a") as f:
    f.write("%s started\\n")
fd = os.environ.get("TARRY_UPDATE_READY_FD")
if %s and fd:
    os.write(int(fd), b"ready\\n")
"""


def program(version, starts=True):
    return FAKE_TARRY % (version, "True" if starts else "False")


def make_archive(version, starts=True, padding=0):
    stage = tempfile.mkdtemp(dir=WORK)
    bin_dir = os.path.join(stage, "tarry-" + version, "bin")
    os.makedirs(bin_dir)
    with open(os.path.join(bin_dir, "tarry"), "w") as f:
        f.write(program(version, starts))
    os.chmod(os.path.join(bin_dir, "tarry"), 0o755)
    if padding:
        with open(os.path.join(stage, "tarry-" + version, "padding"), "wb") as f:
            f.write(os.urandom(padding))
    path = os.path.join(WORK, "tarry-%s-%d.tar.gz" % (version, len(os.listdir(WORK))))
    with tarfile.open(path, "w:gz") as tar:
        tar.add(os.path.join(stage, "tarry-" + version), arcname="tarry-" + version)
    with open(path, "rb") as f:
        return f.read()


def sign(data, secret):
    path = os.path.join(WORK, "to-sign")
    with open(path, "wb") as f:
        f.write(data)
    run(SIGN, "sign", secret, path)
    with open(path + ".sig", "rb") as f:
        return f.read()


def fresh_install():
    root = tempfile.mkdtemp(dir=WORK, prefix="install-")
    os.makedirs(os.path.join(root, "tarry-1.0", "bin"))
    exe = os.path.join(root, "tarry-1.0", "bin", "tarry")
    with open(exe, "w") as f:
        f.write(program("1.0"))
    os.chmod(exe, 0o755)
    os.symlink("tarry-1.0", os.path.join(root, "current"))
    return root


def publish(archive, signature, port, url=None, sha=None, name="/dl/tarry-2.0.tar.gz"):
    FILES.clear()
    FILES[name] = archive
    FILES[name + ".sig"] = signature
    feed = {"version": "2.0", "url": url or "https://127.0.0.1:%d%s" % (port, name),
            "sha256": sha or hashlib.sha256(archive).hexdigest(), "notes": "Faster holds."}
    FILES["/dl/tarry/latest.json"] = json.dumps(feed).encode()


def probe(root, port, key, ca, *extra):
    state = tempfile.mkdtemp(dir=WORK, prefix="state-")
    env = dict(os.environ, SSL_CERT_FILE=ca, XDG_STATE_HOME=state)
    done = subprocess.run([PROBE, "--server", "https://127.0.0.1:%d" % port, "--version", "1.0", "--key", key,
                           "--exe", os.path.join(root, "current", "bin", "tarry"), "--start-timeout", "15", *extra],
                          capture_output=True, text=True, env=env, timeout=120)
    downloads = []
    for base, _, names in os.walk(os.path.join(state, "tarry", "updates")):
        downloads += [os.path.join(base, n) for n in names]
    return done, downloads


failures = []


def expect(condition, what, done=None):
    if not condition:
        failures.append(what + ("\n  stdout: %s\n  stderr: %s" % (done.stdout, done.stderr[-2000:]) if done else ""))
        print("FAIL:", what)
    else:
        print("ok:", what)


def unchanged(root):
    return (os.readlink(os.path.join(root, "current")) == "tarry-1.0"
            and not os.path.exists(os.path.join(root, "tarry-2.0")))


def main():
    ca, cert, key = make_certs()
    server = start_server(cert, key)
    port = server.server_address[1]
    secret, other = os.path.join(WORK, "sk"), os.path.join(WORK, "other-sk")
    pk = run(SIGN, "keygen", secret).strip()
    run(SIGN, "keygen", other)
    good = make_archive("2.0")

    # A signed release installs and the new copy starts.
    root = fresh_install()
    publish(good, sign(good, secret), port)
    done, downloads = probe(root, port, pk, ca)
    expect("ALERT Tarry 2.0 is available | You have 1.0.\n\nFaster holds." in done.stdout, "the offer", done)
    expect(done.returncode == 0 and "QUIT" in done.stdout, "the old copy quits once the new one runs", done)
    expect(os.readlink(os.path.join(root, "current")) == "tarry-2.0", "current points at the new copy", done)
    marker = open(os.path.join(root, "marker")).read() if os.path.exists(os.path.join(root, "marker")) else ""
    expect("2.0 started" in marker, "the new version started", done)
    expect(os.path.isdir(os.path.join(root, "tarry-1.0")), "the old copy is kept", done)

    refused = "ALERT The update was not installed | "
    cases = [
        ("a tampered archive", lambda: publish(good[:-10] + b"0123456789", sign(good, secret), port,
                                               sha=hashlib.sha256(good).hexdigest()), (),
         refused + "The downloaded file is damaged: its SHA-256 checksum does not match the release."),
        ("a wrong signature", lambda: publish(good, sign(good, other), port), (),
         refused + "The update's signature is not valid."),
        ("an http address", lambda: publish(good, sign(good, secret), port, url="http://127.0.0.1:%d/x" % port),
         ("--manual",), "ALERT Couldn't check for updates | Try again later."),
    ]
    big = make_archive("2.0", padding=11 * 1000 * 1000)
    cases.append(("a download over the size limit", lambda: publish(big, sign(big, secret), port), ("--max-mb", "10"),
                  refused + "The download is larger than the 10 MB allowed."))
    broken = make_archive("2.0", starts=False)
    cases.append(("a new copy that does not start", lambda: publish(broken, sign(broken, secret), port), (),
                  "ALERT Tarry 2.0 did not start | The new version did not start. Tarry went back to the version "
                  "you had. You still have Tarry 1.0."))
    for name, setup, extra, alert in cases:
        root = fresh_install()
        setup()
        done, downloads = probe(root, port, pk, ca, *extra)
        expect(alert in done.stdout, name + ": refused with its reason", done)
        expect(done.returncode == 1 and "QUIT" not in done.stdout, name + ": the running copy stays", done)
        expect(unchanged(root), name + ": the installed copy is unchanged", done)
        if name != "a new copy that does not start":
            expect(not downloads, name + ": no downloaded file is left", done)

    # A download that hardly moves is given up once a networkTimeoutSec (here 2 s) brings less than
    # a few kilobytes, however long each byte keeps the connection alive.
    root = fresh_install()
    publish(good, sign(good, secret), port)
    SLOW["drip"] = True
    started = time.monotonic()
    done, downloads = probe(root, port, pk, ca, "--timeout-sec", "2")
    took = time.monotonic() - started
    SLOW["drip"] = False
    expect(refused + "The download failed: the download stalled" in done.stdout and took < 30,
           "a stalled download: refused as stalled (after %.0f s)" % took, done)
    expect(unchanged(root) and not downloads, "a stalled download: nothing installed, no partial file left", done)

    # Cancel in the progress window stops the download quietly and keeps nothing.
    root = fresh_install()
    publish(big, sign(big, secret), port)
    SLOW["delay"] = 0.05
    done, downloads = probe(root, port, pk, ca, "--cancel-after", "2")
    SLOW["delay"] = 0.0
    expect("CANCEL" in done.stdout and done.returncode == 3, "cancel: the Cancel button was clicked", done)
    expect(done.stdout.count("ALERT") == 1, "cancel: no alert after the offer", done)
    expect("download cancelled" in done.stderr, "cancel: logged", done)
    expect(unchanged(root) and not downloads, "cancel: nothing installed, no partial file left", done)

    server.shutdown()
    shutil.rmtree(WORK, ignore_errors=True)
    if failures:
        print("\n".join(failures))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
