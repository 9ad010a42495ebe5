#!/usr/bin/env python3
"""Draws the sidebar's icons as small anti-aliased RGBA PNG files (run from
this directory; only the standard library is needed)."""
import struct
import zlib

SS = 4  # samples per pixel and axis


def png(path, size, pixels):
    raw = b"".join(b"\0" + bytes(sum((list(p) for p in row), [])) for row in pixels)
    def chunk(tag, data):
        c = struct.pack(">I", len(data)) + tag + data
        return c + struct.pack(">I", zlib.crc32(tag + data) & 0xFFFFFFFF)
    hdr = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", hdr) + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def draw(size, layers):
    """layers: list of (inside(x, y) -> bool in pixel units, (r, g, b))."""
    rows = []
    for py in range(size):
        row = []
        for px in range(size):
            acc = [0.0, 0.0, 0.0, 0.0]
            for sy in range(SS):
                for sx in range(SS):
                    x, y = px + (sx + 0.5) / SS, py + (sy + 0.5) / SS
                    col = None
                    for inside, rgb in layers:
                        if inside(x, y):
                            col = rgb
                    if col:
                        acc[0] += col[0]; acc[1] += col[1]; acc[2] += col[2]; acc[3] += 1
            n = acc[3]
            row.append((int(acc[0] / n), int(acc[1] / n), int(acc[2] / n), int(255 * n / SS / SS)) if n else (0, 0, 0, 0))
        rows.append(row)
    return rows


def disc(size, r):
    c = size / 2
    return lambda x, y: (x - c) ** 2 + (y - c) ** 2 <= r * r


def ring(size, r, w):
    c = size / 2
    return lambda x, y: (r - w) ** 2 <= (x - c) ** 2 + (y - c) ** 2 <= r * r


def diamond(size, r):
    c = size / 2
    return lambda x, y: abs(x - c) + abs(y - c) <= r


def diamond_ring(size, r, w):
    c = size / 2
    return lambda x, y: r - w * 1.4 <= abs(x - c) + abs(y - c) <= r


def arrow(size):
    m = size / 2
    return lambda x, y: (1 <= x <= m and m - size * 0.18 <= y <= m + size * 0.18) or (m <= x <= size - 1 and abs(y - m) <= (size - 1 - x) * 0.9)


def triangle(size):
    m = size / 2
    return lambda x, y: 2 <= x <= size - 1.5 and abs(y - m) <= (size - 1.5 - x) * 0.55


def square(size):
    return lambda x, y: 2 <= x <= size - 2 and 2 <= y <= size - 2


RED, DARK_RED, GREY, BLUE, DARK_BLUE = (220, 30, 30), (140, 10, 10), (150, 150, 150), (40, 110, 220), (20, 60, 140)
YELLOW, GREEN, DARK = (250, 210, 30), (40, 170, 60), (60, 60, 60)

ICONS = {
    "breakpoint-11.png": (11, [(disc(11, 5), DARK_RED), (disc(11, 4.2), RED)]),
    "breakpoint-clear-11.png": (11, [(ring(11, 5, 1.4), RED)]),
    "breakpoint-17.png": (17, [(disc(17, 7), DARK_RED), (disc(17, 6.2), RED)]),
    "breakpoint-disabled-17.png": (17, [(ring(17, 7, 1.6), GREY)]),
    "tracepoint-12.png": (12, [(diamond(12, 5.5), DARK_BLUE), (diamond(12, 4.5), BLUE)]),
    "tracepoint-disabled-12.png": (12, [(diamond_ring(12, 5.5, 1.2), GREY)]),
    "tracepoint-17.png": (17, [(diamond(17, 8), DARK_BLUE), (diamond(17, 6.8), BLUE)]),
    "tracepoint-disabled-16.png": (16, [(diamond_ring(16, 7.5, 1.4), GREY)]),
    "grey-dot-17.png": (17, [(disc(17, 2.5), GREY)]),
    "arrow-pc-yellow-12.png": (12, [(arrow(12), YELLOW)]),
    "arrow-pc-12.png": (12, [(arrow(12), GREEN)]),
    "play-12.png": (12, [(triangle(12), GREEN)]),
    "stop-12.png": (12, [(square(12), RED)]),
}

if __name__ == "__main__":
    for name, (size, layers) in ICONS.items():
        png(name, size, draw(size, layers))
