#!/usr/bin/env python3
"""Draws the ribbon buttons' pictures: convert, settings and portfolio, 32 and 48 pixels square.

Each picture is a stack of filled shapes, painted back to front, sampled SAMPLES x SAMPLES times
per pixel so that edges come out smooth; the background stays transparent. The pictures are
committed beside this script, and the build does not run it: run it by hand after changing a
shape, from any folder, with any Python 3 (it needs nothing beyond zlib and struct).
"""

import math
import os
import struct
import zlib

SAMPLES = 8

# Colours, as (red, green, blue, alpha).
PAGE = (255, 255, 255, 255)
PAGE_EDGE = (96, 104, 116, 255)
FOLD = (214, 220, 228, 255)
TEXT_LINE = (170, 178, 190, 255)
BAND = (200, 32, 38, 255)
BAND_DARK = (150, 20, 26, 255)
LETTER = (255, 255, 255, 255)
ARROW = (28, 112, 200, 255)
ARROW_DARK = (16, 78, 150, 255)
FOLDER_BACK = (214, 158, 46, 255)
FOLDER_FRONT = (244, 196, 82, 255)
FOLDER_EDGE = (160, 110, 24, 255)
GEAR = (112, 124, 140, 255)
GEAR_EDGE = (64, 74, 88, 255)
GEAR_HUB = (232, 236, 240, 255)


# ---------------------------------------------------------------------------------------------
# Shapes: each is a test of a point (x, y) in pixel units, 0,0 being the top left corner.

def rect(x0, y0, x1, y1):
    return lambda x, y: x0 <= x < x1 and y0 <= y < y1


def rounded_rect(x0, y0, x1, y1, r):
    def inside(x, y):
        if not (x0 <= x < x1 and y0 <= y < y1):
            return False
        cx = min(max(x, x0 + r), x1 - r)
        cy = min(max(y, y0 + r), y1 - r)
        return (x - cx) ** 2 + (y - cy) ** 2 <= r * r
    return inside


def polygon(points):
    def inside(x, y):
        result = False
        n = len(points)
        for i in range(n):
            (xa, ya), (xb, yb) = points[i], points[(i + 1) % n]
            if (ya > y) != (yb > y):
                if x < xa + (y - ya) * (xb - xa) / (yb - ya):
                    result = not result
        return result
    return inside


def circle(cx, cy, r):
    return lambda x, y: (x - cx) ** 2 + (y - cy) ** 2 <= r * r


def gear(cx, cy, outer, inner, hole, teeth):
    """A wheel of `teeth` teeth, reaching `outer`, its body `inner`, with a hole of `hole`."""
    def inside(x, y):
        dx, dy = x - cx, y - cy
        r = math.hypot(dx, dy)
        if r < hole or r > outer:
            return False
        if r <= inner:
            return True
        # A tooth is a little narrower at its tip than at its root.
        phase = (math.atan2(dy, dx) / (2 * math.pi) * teeth) % 1.0
        depth = (r - inner) / (outer - inner)
        half = 0.26 - 0.08 * depth
        return abs(phase - 0.5) < half
    return inside


def both(a, b):
    return lambda x, y: a(x, y) and b(x, y)


def minus(a, b):
    return lambda x, y: a(x, y) and not b(x, y)


# ---------------------------------------------------------------------------------------------
# Block letters on a 3 by 5 grid, drawn with cells of `unit` pixels.

GLYPHS = {
    "P": ["XX.", "X.X", "XX.", "X..", "X.."],
    "D": ["XX.", "X.X", "X.X", "X.X", "XX."],
    "F": ["XXX", "X..", "XX.", "X..", "X.."],
}


def text(word, left, top, unit):
    cells = []
    for index, letter in enumerate(word):
        for row, line in enumerate(GLYPHS[letter]):
            for column, mark in enumerate(line):
                if mark == "X":
                    x = left + (index * 4 + column) * unit
                    y = top + row * unit
                    cells.append(rect(x, y, x + unit, y + unit))
    return lambda x, y: any(cell(x, y) for cell in cells)


def text_width(word, unit):
    return (len(word) * 4 - 1) * unit


# ---------------------------------------------------------------------------------------------
# Parts of the pictures, in units of s (the size / 32) where they scale.

def page(layers, x0, y0, x1, y1, fold, edge, lines=True):
    """A sheet with its top right corner folded over, an outline of `edge` pixels."""
    outline = [(x0, y0), (x1 - fold, y0), (x1, y0 + fold), (x1, y1), (x0, y1)]
    inner = [(x0 + edge, y0 + edge), (x1 - fold - edge * 0.4, y0 + edge),
             (x1 - edge, y0 + fold + edge * 0.4), (x1 - edge, y1 - edge), (x0 + edge, y1 - edge)]
    layers.append((polygon(outline), PAGE_EDGE))
    layers.append((polygon(inner), PAGE))
    corner = [(x1 - fold, y0), (x1 - fold, y0 + fold), (x1, y0 + fold)]
    layers.append((polygon(corner), PAGE_EDGE))
    corner_inner = [(x1 - fold + edge, y0 + edge * 2.4), (x1 - fold + edge, y0 + fold - edge),
                    (x1 - edge * 2.4, y0 + fold - edge)]
    layers.append((polygon(corner_inner), FOLD))
    if lines:
        step = (y1 - y0) / 7.0
        for i in range(3):
            y = y0 + fold + edge + step * 0.6 + i * step * 0.9
            right = x1 - edge * 3 if i else x1 - fold - edge
            layers.append((rect(x0 + edge * 3, y, right, y + edge), TEXT_LINE))


def pdf_band(layers, x0, y0, x1, size):
    """The red label with "PDF" in white, letters on whole pixels so that they stay sharp."""
    unit = 1 if size < 40 else 2
    height = 5 * unit + (4 if size < 40 else 6)
    width = text_width("PDF", unit)
    layers.append((rounded_rect(x0, y0, x1, y0 + height, 1.5 * unit), BAND_DARK))
    layers.append((rounded_rect(x0 + 0.75, y0 + 0.75, x1 - 0.75, y0 + height - 0.75,
                                1.5 * unit), BAND))
    left = round(x0 + (x1 - x0 - width) / 2)
    top = round(y0 + (height - 5 * unit) / 2)
    layers.append((text("PDF", left, top, unit), LETTER))
    return y0 + height


def convert_icon(size):
    s = size / 32.0
    layers = []
    edge = max(1.0, round(s))
    page(layers, 7 * s, 1.5 * s, 27 * s, 30.5 * s, 7 * s, edge)
    pdf_band(layers, 1.5 * s, 16 * s, 23.5 * s, size)
    # An arrow into the document, coming from the left, above the label.
    shaft = 3.2 * s
    cy = 9.5 * s
    arrow = polygon([(1.5 * s, cy - shaft / 2), (12 * s, cy - shaft / 2), (12 * s, cy - 5 * s),
                     (19.5 * s, cy), (12 * s, cy + 5 * s), (12 * s, cy + shaft / 2),
                     (1.5 * s, cy + shaft / 2)])
    arrow_inner = polygon([(2.3 * s, cy - shaft / 2 + 0.8 * s), (12.8 * s, cy - shaft / 2 + 0.8 * s),
                           (12.8 * s, cy - 3.3 * s), (18.1 * s, cy), (12.8 * s, cy + 3.3 * s),
                           (12.8 * s, cy + shaft / 2 - 0.8 * s),
                           (2.3 * s, cy + shaft / 2 - 0.8 * s)])
    layers.append((arrow, ARROW_DARK))
    layers.append((arrow_inner, ARROW))
    return layers


def portfolio_icon(size):
    s = size / 32.0
    layers = []
    edge = max(1.0, round(s))
    # The folder's back with its tab.
    back = polygon([(1.5 * s, 5 * s), (11 * s, 5 * s), (13.5 * s, 8 * s), (30.5 * s, 8 * s),
                    (30.5 * s, 28.5 * s), (1.5 * s, 28.5 * s)])
    layers.append((back, FOLDER_EDGE))
    layers.append((polygon([(2.5 * s, 6 * s), (10.5 * s, 6 * s), (13 * s, 9 * s),
                            (29.5 * s, 9 * s), (29.5 * s, 27.5 * s), (2.5 * s, 27.5 * s)]),
                   FOLDER_BACK))
    # Two documents standing in it.
    page(layers, 6 * s, 3 * s, 20 * s, 22 * s, 5 * s, edge, lines=False)
    page(layers, 12 * s, 1.5 * s, 26 * s, 21 * s, 5 * s, edge)
    # The front of the folder, slanted a little, with the label on it.
    front = polygon([(1.5 * s, 13 * s), (30.5 * s, 13 * s), (30.5 * s, 28.5 * s),
                     (1.5 * s, 28.5 * s)])
    layers.append((front, FOLDER_EDGE))
    layers.append((polygon([(2.5 * s, 14 * s), (29.5 * s, 14 * s), (29.5 * s, 27.5 * s),
                            (2.5 * s, 27.5 * s)]), FOLDER_FRONT))
    pdf_band(layers, 5 * s, 16.5 * s, 27 * s, size)
    return layers


def settings_icon(size):
    s = size / 32.0
    c = size / 2.0
    layers = []
    outer, inner, hole = 14.5 * s, 10.5 * s, 4.6 * s
    layers.append((gear(c, c, outer, inner, 0, 8), GEAR_EDGE))
    layers.append((gear(c, c, outer - 1.1 * s, inner - 1.1 * s, 0, 8), GEAR))
    # A lighter ring around the hole, and the hole itself left clear.
    layers.append((circle(c, c, hole + 2.2 * s), GEAR_EDGE))
    layers.append((circle(c, c, hole + 1.2 * s), GEAR_HUB))
    layers.append((circle(c, c, hole), None))
    return layers


# ---------------------------------------------------------------------------------------------
# Rendering and PNG output.

def render(layers, size):
    """RGBA rows: each pixel the mean of its samples, a sample the colour of its topmost layer."""
    offsets = [(i + 0.5) / SAMPLES for i in range(SAMPLES)]
    count = SAMPLES * SAMPLES
    rows = []
    for py in range(size):
        row = bytearray()
        for px in range(size):
            r = g = b = a = 0.0
            for oy in offsets:
                for ox in offsets:
                    x, y = px + ox, py + oy
                    colour = None
                    for shape, fill in reversed(layers):
                        if shape(x, y):
                            colour = fill
                            break
                    if colour is not None:
                        alpha = colour[3] / 255.0
                        r += colour[0] * alpha
                        g += colour[1] * alpha
                        b += colour[2] * alpha
                        a += alpha
            if a > 0:
                # Colours are averaged weighted by coverage, so that edges do not darken.
                row += bytes((round(r / a), round(g / a), round(b / a), round(a / count * 255)))
            else:
                row += bytes(4)
        rows.append(bytes(row))
    return rows


def png_bytes(rows, size):
    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))
    header = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)
    raw = b"".join(b"\x00" + row for row in rows)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9))
            + chunk(b"IEND", b""))


def main():
    folder = os.path.dirname(os.path.abspath(__file__))
    icons = {"convert": convert_icon, "settings": settings_icon, "portfolio": portfolio_icon}
    for name, draw in icons.items():
        for size in (32, 48):
            path = os.path.join(folder, "%s_%d.png" % (name, size))
            with open(path, "wb") as out:
                out.write(png_bytes(render(draw(size), size), size))
            print(path)


if __name__ == "__main__":
    main()
