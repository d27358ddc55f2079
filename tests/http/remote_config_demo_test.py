#!/usr/bin/env python3
"""Runs `tarry --remote-config-demo` against a server on 127.0.0.1 and checks the line it prints.

Usage: remote_config_demo_test.py PATH_TO_TARRY
"""
import http.server
import json
import os
import resource
import socket
import subprocess
import sys
import threading
import time

DEFAULT_LINE = ("hudCornerRadius=18 hudShadow=true meterGreenThreshold=0.5 meterYellowThreshold=0.75 "
                "bannerFillAlpha=0.18 hudVerticalOffset=0")

FULL = {"hudCornerRadius": 24.5, "hudShadow": False, "meterGreenThreshold": 0.6,
        "meterYellowThreshold": 0.9, "bannerFillAlpha": 0.25, "hudVerticalOffset": -40}

# (name, status, body, expected line)
CASES = [
    ("full document", 200, json.dumps(FULL),
     "hudCornerRadius=24.5 hudShadow=false meterGreenThreshold=0.6 meterYellowThreshold=0.9 "
     "bannerFillAlpha=0.25 hudVerticalOffset=-40"),
    ("out of range and wrong types", 200,
     json.dumps({"hudCornerRadius": 100, "hudShadow": 0.5, "meterGreenThreshold": "0.6",
                 "meterYellowThreshold": True, "bannerFillAlpha": None, "hudVerticalOffset": -1e9}),
     "hudCornerRadius=40 hudShadow=false meterGreenThreshold=0.5 meterYellowThreshold=0.98 "
     "bannerFillAlpha=0.18 hudVerticalOffset=-150"),
    ("404 with a valid document", 404, json.dumps(FULL), DEFAULT_LINE),
    ("array at the top level", 200, json.dumps([FULL]), DEFAULT_LINE),
    ("invalid JSON", 200, json.dumps(FULL)[:-1], DEFAULT_LINE),
    ("partial document", 200, json.dumps({"hudShadow": False, "bannerFillAlpha": 0.1}),
     "hudCornerRadius=18 hudShadow=false meterGreenThreshold=0.5 meterYellowThreshold=0.75 "
     "bannerFillAlpha=0.1 hudVerticalOffset=0"),
]


class Handler(http.server.BaseHTTPRequestHandler):
    status = 200
    body = b""
    seen = []
    # Seconds between single bytes of a 100 kB answer; 0 sends the body at once.
    drip = 0

    def do_GET(self):  # noqa: N802 (the standard library's name)
        Handler.seen.append((self.path, self.headers.get("User-Agent", "")))
        self.send_response(Handler.status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(100000 if Handler.drip else len(Handler.body)))
        self.end_headers()
        try:
            if not Handler.drip:
                self.wfile.write(Handler.body)
                return
            for _ in range(100000):
                self.wfile.write(b" ")
                self.wfile.flush()
                time.sleep(Handler.drip)
        except OSError:
            pass  # the client gave up, as it should

    def log_message(self, *args):
        pass


def run_demo(tarry, base):
    env = dict(os.environ, TARRY_SERVER_URL=base, QT_QPA_PLATFORM="offscreen")
    return subprocess.run([tarry, "--remote-config-demo"], env=env, capture_output=True, text=True, timeout=60)


def main():
    tarry = sys.argv[1]
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    base = "http://127.0.0.1:%d" % server.server_address[1]
    failures = []

    for name, status, body, expected in CASES:
        Handler.status, Handler.body, Handler.seen = status, body.encode(), []
        result = run_demo(tarry, base)
        if result.returncode != 0 or result.stdout != expected + "\n":
            failures.append("%s: exit %d, printed %r, expected %r; stderr %r"
                            % (name, result.returncode, result.stdout, expected + "\n", result.stderr))
        if len(Handler.seen) != 1 or Handler.seen[0][0] != "/api/tarry-config" \
                or not Handler.seen[0][1].startswith("Tarry/"):
            failures.append("%s: requests seen %r" % (name, Handler.seen))

    # A server that sends a byte every 0.5 s is cut off after networkTimeoutSec (10 s) in all,
    # however long each byte keeps the connection alive.
    Handler.status, Handler.body, Handler.drip = 200, b"", 0.5
    start = time.monotonic()
    result = run_demo(tarry, base)
    took = time.monotonic() - start
    Handler.drip = 0
    if result.returncode != 0 or result.stdout != DEFAULT_LINE + "\n" or not 9 <= took <= 20 \
            or "within 10 s" not in result.stderr:
        failures.append("dripping server: exit %d after %.1f s, printed %r, stderr %r"
                        % (result.returncode, took, result.stdout, result.stderr))

    # 50 MB of small numbers: refused for its size before it is read, so the demo stays small.
    Handler.body = b"[" + b"1," * 25_000_000 + b"1]"
    result = run_demo(tarry, base)
    Handler.body = b""
    peak_mb = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss / 1024
    if result.returncode != 0 or result.stdout != DEFAULT_LINE + "\n" or "larger than" not in result.stderr \
            or peak_mb > 200:
        failures.append("50 MB document: exit %d, printed %r, stderr %r, peak %.0f MB"
                        % (result.returncode, result.stdout, result.stderr, peak_mb))

    # No server listening: the compiled-in values, and still a clean exit.
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        closed = "http://127.0.0.1:%d" % probe.getsockname()[1]
    result = run_demo(tarry, closed)
    if result.returncode != 0 or result.stdout != DEFAULT_LINE + "\n":
        failures.append("no server: exit %d, printed %r" % (result.returncode, result.stdout))

    server.shutdown()
    for f in failures:
        print("FAIL " + f)
    print("%d checks failed" % len(failures) if failures else "all remote configuration demo checks passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
