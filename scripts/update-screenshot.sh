#!/usr/bin/env bash
# Shows the update path on a private X server (Xvfb + openbox) against a local https server and
# saves four screenshots: the offer, the progress window during a (slowed) download, the refusal
# of a download whose signature is wrong, and a checked download left for the user to install.
# Prints the PNGs' paths.
#
#   scripts/update-screenshot.sh [OUTPUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/find-built.sh
tarry="$(find_built main/cli/tarry)"
client="$(find_built tests/x11/tarry-test-client)"
probe="$(find_built tests/update_real/tarry-update-probe)"
sign="$(find_built tests/update_real/tarry-sign)"
if [ -z "$tarry" ] || [ -z "$client" ] || [ -z "$probe" ] || [ -z "$sign" ]; then
  echo "update-screenshot: build tarry, tarry-test-client, tarry-update-probe and tarry-sign first" >&2
  exit 1
fi
out="${1:-${TMPDIR:-/tmp}/tarry-update-screenshots}"
mkdir -p "$out"

python3 - "$tarry" "$client" "$probe" "$sign" "$out" <<'PYTHON'
import os, subprocess, sys, tempfile, time
tarry, client, probe, sign, out = (os.path.abspath(a) for a in sys.argv[1:6])
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "e2e"))
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "update_real"))
sys.argv = ["update_https_test", probe, sign]
import update_https_test as u
from harness import Harness, wait_for

h = Harness(tarry, client)
try:
    ca, cert, key = u.make_certs()
    server = u.start_server(cert, key)
    port = server.server_address[1]
    secret, other = os.path.join(u.WORK, "sk"), os.path.join(u.WORK, "other-sk")
    pk = u.run(sign, "keygen", secret).strip()
    u.run(sign, "keygen", other)
    archive = u.make_archive("2.0", padding=4 * 1000 * 1000)
    u.publish(archive, u.sign(archive, other), port)   # signed with the wrong key
    u.SLOW["delay"] = 0.12
    root = u.fresh_install()
    log = os.path.join(h.tmp, "probe.out")
    env = dict(h.env, SSL_CERT_FILE=ca, XDG_STATE_HOME=os.path.join(h.tmp, "state"))
    with open(log, "w") as f:
        proc = subprocess.Popen([probe, "--server", "https://127.0.0.1:%d" % port, "--version", "1.0",
                                 "--key", pk, "--exe", os.path.join(root, "current", "bin", "tarry"),
                                 "--qt-alerts"], env=env, stdout=f, stderr=subprocess.STDOUT)
    shot = lambda name: subprocess.run(["import", "-window", "root", os.path.join(out, name)], env=h.env,
                                       check=True)
    said = lambda text: text in open(log).read()
    wait_for("the offer", lambda: said("ALERT Tarry 2.0 is available"), timeout=20)
    time.sleep(1.5)
    shot("offer.png")
    subprocess.run(["xdotool", "key", "Return"], env=h.env, check=True)
    wait_for("the download", lambda: said("downloading"), timeout=20)
    time.sleep(3)
    shot("progress.png")
    wait_for("the refusal", lambda: said("ALERT The update was not installed"), timeout=60)
    time.sleep(1.5)
    shot("refusal.png")
    subprocess.run(["xdotool", "key", "Return"], env=h.env, check=True)
    proc.wait(timeout=20)

    # A copy that cannot replace itself (neither its own folder nor the package's) names the
    # checked file for the user.
    u.publish(archive, u.sign(archive, secret), port)
    u.SLOW["delay"] = 0
    plain = os.path.join(h.tmp, "plain", "tarry")
    os.makedirs(os.path.dirname(plain))
    with open(plain, "w") as f:
        f.write("#!/bin/sh\n")
    os.chmod(plain, 0o755)
    with open(log, "w") as f:
        proc = subprocess.Popen([probe, "--server", "https://127.0.0.1:%d" % port, "--version", "1.0",
                                 "--key", pk, "--exe", plain, "--qt-alerts"], env=env, stdout=f,
                                stderr=subprocess.STDOUT)
    wait_for("the offer", lambda: said("ALERT Tarry 2.0 is available"), timeout=20)
    time.sleep(1.5)
    subprocess.run(["xdotool", "key", "Return"], env=h.env, check=True)
    wait_for("the file left for the user", lambda: said("ALERT Install Tarry 2.0 by hand"), timeout=60)
    time.sleep(1.5)
    shot("by-hand.png")
    subprocess.run(["xdotool", "key", "Return"], env=h.env, check=True)
    proc.wait(timeout=20)
    server.shutdown()
finally:
    h.close()
for name in ("offer.png", "progress.png", "refusal.png", "by-hand.png"):
    print(os.path.join(out, name))
PYTHON
