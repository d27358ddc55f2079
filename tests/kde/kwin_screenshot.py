#!/usr/bin/python3
"""Takes a screenshot of a KWin session through its ScreenShot2 D-Bus interface (KWin must run
with OpenGL compositing and, for a program without a desktop file that declares the interface,
KWIN_SCREENSHOT_NO_PERMISSION_CHECKS=1). Needs python3-dbus; runs on the session bus of
$DBUS_SESSION_BUS_ADDRESS.

    kwin_screenshot.py OUT.ppm [X Y WIDTH HEIGHT]     writes a binary PPM (P6)
"""

import os
import sys

import dbus


def capture(x, y, width, height):
    """(width, height, rgb bytes) of an area of the screen."""
    bus = dbus.SessionBus()
    shot = dbus.Interface(bus.get_object("org.kde.KWin", "/org/kde/KWin/ScreenShot2"), "org.kde.KWin.ScreenShot2")
    read_end, write_end = os.pipe()
    try:
        info = shot.CaptureArea(x, y, dbus.UInt32(width), dbus.UInt32(height), {"native-resolution": True},
                                dbus.types.UnixFd(write_end), timeout=10)
    finally:
        os.close(write_end)
    chunks = []
    while True:
        chunk = os.read(read_end, 1 << 20)
        if not chunk:
            break
        chunks.append(chunk)
    os.close(read_end)
    data = b"".join(chunks)
    w, h, stride = int(info["width"]), int(info["height"]), int(info["stride"])
    # QImage's 32-bit formats lie in memory as B, G, R, A on this little-endian machine.
    rgb = bytearray()
    for row in range(h):
        line = data[row * stride:row * stride + w * 4]
        for i in range(0, len(line), 4):
            rgb += bytes((line[i + 2], line[i + 1], line[i]))
    return w, h, bytes(rgb)


def main():
    if len(sys.argv) not in (2, 6):
        sys.exit(__doc__)
    x, y, width, height = (int(v) for v in sys.argv[2:6]) if len(sys.argv) == 6 else (0, 0, 1280, 800)
    w, h, rgb = capture(x, y, width, height)
    with open(sys.argv[1], "wb") as f:
        f.write(b"P6 %d %d 255\n" % (w, h) + rgb)


if __name__ == "__main__":
    main()
