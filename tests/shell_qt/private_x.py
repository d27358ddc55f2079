"""A private Xvfb for the tray tests, on a random display number well above the ones Xvfb hands
out from 0 up."""
import os
import random
import subprocess


def start_x():
    """Starts Xvfb and returns (process, ":N"); None when no server could be started."""
    for _ in range(20):
        number = random.randint(200, 999)
        if os.path.exists("/tmp/.X%d-lock" % number):
            continue
        read_end, write_end = os.pipe()
        server = subprocess.Popen(["Xvfb", ":%d" % number, "-displayfd", str(write_end), "-screen", "0",
                                   "1024x768x24", "-nolisten", "tcp"], pass_fds=(write_end,),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write_end)
        with os.fdopen(read_end, "rb") as pipe:
            if pipe.readline().strip() == str(number).encode():
                return server, ":%d" % number
        server.wait()
    return None
