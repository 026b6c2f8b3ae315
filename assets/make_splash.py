#!/usr/bin/env python3
"""Draws the start-up picture, splash.png: make_splash.py OUT.png

Python's standard library only; the same picture at every run. The bootloader's copy is made from the PNG file, so this
runs only when the artwork changes:

    python3 assets/make_splash.py assets/splash.png
    fixture splash encode assets/splash.png src/Images.cpp

Three lamps on a truss, one of them in the accent colour; the maker's name below. Everything is outlines, drawn with
the exact part of each pixel that they cover as its grey. The panel has 5-bit colours: 32 greys, and the accent, which
has no shades: its pixels are covered by half at least, and greys smooth its edges.

The array in the bootloader has little room, so the drawing ends with a search: edge pixels move by a few grey steps,
which nobody sees, until the picture has exactly the counts of pixels and runs in BUDGET.
"""

import math
import random
import struct
import sys
import zlib
from collections import Counter

WIDTH, HEIGHT = 320, 240
BLACK, WHITE, ACCENT = 0x0000, 0x7FFF, 0x037F
GREY = 0x0421  # one step of 31 in all three fields
LEFT, RIGHT, TOP, BOTTOM = 2, 318, 16, 133

BUDGET = {"white": 13317, "accent": 1589, "black": 60237, "repeats": 1475, "literals": 1171, "literal pixels": 1676}

SLANT = 0.2  # of the lettering
NAME = [("O", 50), ("R", 45), ("V", 53), ("A", 52), ("L", 36), ("I", 12.6), ("S", 39)]
NAME_TOP, NAME_HEIGHT, NAME_GAP = 78, 26, 4
NAME_UPRIGHT, NAME_LEVEL, NAME_RADIUS = 12.6, 7, 11
BAND_TOP = 115
TRADE = [("L", 11), ("U", 13), ("M", 16), ("I", 2), ("N", 14), ("A", 15), ("T", 13), ("I", 2), ("O", 14), ("N", 14),
         ("S", 12)]
TRADE_TOP, TRADE_HEIGHT, TRADE_GAP = 119, 9, 11
TRADE_STROKE, TRADE_RADIUS = 2, 3.5
LAMPS = 62.5, 160, 257.5  # centre columns; the last is the accent's
RAY_ANGLES = -39, 0, 39
RAY_START, RAY_END, RAY_START_HALF, RAY_END_HALF = 24, 50, 11.5, 15  # pixels; degrees
CONTRAST = 1.05  # of the edges, before the search


def rounded(*corners):
    """A polygon from corners (x, y) or (x, y, radius)."""
    outline = []
    for i, (x, y, *radius) in enumerate(corners):
        if not radius:
            outline.append((x, y))
            continue
        (ax, ay), (bx, by) = corners[i - 1][:2], corners[(i + 1) % len(corners)][:2]
        to_a, to_b = math.hypot(ax - x, ay - y), math.hypot(bx - x, by - y)
        ux, uy, vx, vy = (ax - x) / to_a, (ay - y) / to_a, (bx - x) / to_b, (by - y) / to_b
        half = math.acos(ux * vx + uy * vy) / 2
        tangent, centre, bisector = radius[0] / math.tan(half), radius[0] / math.sin(half), math.hypot(ux + vx, uy + vy)
        cx, cy = x + (ux + vx) / bisector * centre, y + (uy + vy) / bisector * centre
        start = math.atan2(y + uy * tangent - cy, x + ux * tangent - cx)
        turn = math.atan2(y + vy * tangent - cy, x + vx * tangent - cx) - start
        turn = (turn + math.pi) % (2 * math.pi) - math.pi
        outline += [(cx + radius[0] * math.cos(start + turn * s / 16), cy + radius[0] * math.sin(start + turn * s / 16))
                    for s in range(17)]
    return outline


def box(x0, y0, x1, y1):
    return [(x0, y0), (x1, y0), (x1, y1), (x0, y1)]


def hole(polygon):
    return polygon[::-1]


def letter(character, w, h, t, u, r):
    """Outlines w wide and h high: upright strokes t wide, level ones u high, corners of radius r."""
    m, inner = w / 2, max(r - t, 1)
    if character == "O":
        return [rounded((0, 0, r), (w, 0, r), (w, h, r), (0, h, r)),
                hole(rounded((t, u, inner), (w - t, u, inner), (w - t, h - u, inner), (t, h - u, inner)))]
    if character == "U":
        return [rounded((0, 0), (t, 0), (t, h - u, inner), (w - t, h - u, inner), (w - t, 0), (w, 0), (w, h, r),
                        (0, h, r))]
    if character == "I":
        return [box(0, 0, t, h)]
    if character == "L":
        return [[(0, 0), (t, 0), (t, h - u), (w, h - u), (w, h), (0, h)]]
    if character == "T":
        return [[(0, 0), (w, 0), (w, u), (m + t / 2, u), (m + t / 2, h), (m - t / 2, h), (m - t / 2, u), (0, u)]]
    if character in "VA":
        b = t * 1.15
        wedge = [(0, 0), (b, 0), (m, h * (m - b) / (m - b / 2)), (w - b, 0), (w, 0), (m + b / 2, h), (m - b / 2, h)]
        if character == "V":
            return [wedge]
        foot = h - math.floor(h * 0.2)
        head = foot - u
        inside = lambda y: (m - b / 2) * (1 - y / h) + b / 2
        return [hole([(x, h - y) for x, y in wedge]),
                [(inside(head), head), (w - inside(head), head), (w - inside(foot), foot), (inside(foot), foot)]]
    if character == "N":
        b = t * 1.2
        return [box(0, 0, t, h), box(w - t, 0, w, h), [(0, 0), (b, 0), (w, h), (w - b, h)]]
    if character == "M":
        b, k = t * 1.15, h * 0.8
        return [box(0, 0, t, h), box(w - t, 0, w, h), [(0, 0), (b, 0), (m + b / 2, k), (m - b / 2, k)],
                [(w - b, 0), (w, 0), (m + b / 2, k), (m - b / 2, k)]]
    if character == "R":
        y, b = math.ceil(h * 0.62), t * 1.15
        outer, eye, leg = min(r, y / 2), min(inner, (y - 2 * u) / 2), w - t * 1.9
        return [rounded((0, 0), (w, 0, outer), (w, y, outer), (t, y), (t, h), (0, h)),
                hole(rounded((t, u), (w - t, u, eye), (w - t, y - u, eye), (t, y - u))),
                [(leg - 1, y - 1), (leg + b - 1, y - 1), (w, h), (w - b, h)]]
    if character == "S":
        a = (h - u) // 2
        b = a + u
        upper, lower, eye = min(r, b / 2), min(r, (h - a) / 2), min(inner, (a - u) / 2)
        return [rounded((w - 1, 0), (w - 1, u), (t, u, eye), (t, a, eye), (w, a, lower), (w, h, lower), (0, h),
                        (0, h - u), (w - t, h - u, eye), (w - t, b, eye), (0, b, upper), (0, 0, upper))]
    raise ValueError(character)


def line_of(letters, left, top, height, gap, *style):
    """Each letter's outlines, slanted, side by side."""
    for character, width in letters:
        yield [[(left + x + (height - y) * SLANT, top + y) for x, y in polygon]
               for polygon in letter(character, width, height, *style)]
        left += width + gap


def arc(cx, cy, radius, middle, half):
    """Points of a circle, by degrees from straight down."""
    angles = [math.radians(middle + half * (i / 12 - 1)) for i in range(25)]
    return [(cx + radius * math.sin(a), cy + radius * math.cos(a)) for a in angles]


def lamp(cx, rays):
    top = TOP + 2
    rod = box(cx - 2.5, top, cx + 2.5, top + 4)
    shade = rounded((cx - 8, top + 3, 3), (cx + 8, top + 3, 3), (cx + 13, top + 11, 1), (cx - 13, top + 11, 1))
    return [rod, shade] + [arc(cx, top, RAY_START, a, h0) + arc(cx, top, RAY_END, a, h1)[::-1] for a, h0, h1 in rays]


def coverage(polygons):
    """What part of each pixel lies inside; polygons unite, holes run the other way round."""
    steps = 32
    edges = []
    for polygon in polygons:
        for (x0, y0), (x1, y1) in zip(polygon, polygon[1:] + polygon[:1]):
            if y0 != y1:
                edges.append((x0, y0, x1, y1, 1) if y0 < y1 else (x1, y1, x0, y0, -1))
    cover = Counter()
    for line in range(math.floor(min(e[1] for e in edges)) * steps, math.ceil(max(e[3] for e in edges)) * steps):
        y = (line + 0.5) / steps
        crossings = sorted((x0 + (x1 - x0) * (y - y0) / (y1 - y0), d) for x0, y0, x1, y1, d in edges if y0 <= y < y1)
        winding = 0
        for (start, direction), (end, _) in zip(crossings, crossings[1:]):
            winding += direction
            if winding:
                for x in range(math.floor(start), math.ceil(end)):
                    cover[x, line // steps] += (min(end, x + 1) - max(start, x)) / steps
    return {place: min(part, 1) for place, part in cover.items()}


def draw():
    """The covered part of every pixel that is not all black, for the white drawing and for the accent's."""
    white = Counter()

    def add(polygons):
        for place, part in coverage(polygons).items():
            white[place] = max(white[place], part)

    rays = [(angle, RAY_START_HALF, RAY_END_HALF) for angle in RAY_ANGLES]
    add([box(LEFT, TOP, RIGHT, TOP + 2)])
    add(lamp(LAMPS[0], rays))
    add(lamp(LAMPS[1], [(0, 45, 53.5)]))
    for outlines in line_of(NAME, LEFT, NAME_TOP, NAME_HEIGHT, NAME_GAP, NAME_UPRIGHT, NAME_LEVEL, NAME_RADIUS):
        add(outlines)
    lean = (BOTTOM - BAND_TOP) * SLANT
    add([[(LEFT + lean, BAND_TOP), (RIGHT, BAND_TOP), (RIGHT - lean, BOTTOM), (LEFT, BOTTOM)]])
    length = sum(width for _, width in TRADE) + TRADE_GAP * (len(TRADE) - 1)
    for outlines in line_of(TRADE, (WIDTH - length) / 2, TRADE_TOP, TRADE_HEIGHT, TRADE_GAP, TRADE_STROKE, TRADE_STROKE,
                            TRADE_RADIUS):
        for place, part in coverage(outlines).items():
            white[place] *= 1 - part
    return white, coverage(lamp(LAMPS[2], rays))


def first_version(white, accent):
    rows = [[BLACK] * WIDTH for _ in range(HEIGHT)]
    sharpen = lambda part: min(1, max(0, (part - 0.5) * CONTRAST + 0.5))
    for (x, y), part in white.items():
        rows[y][x] = round(sharpen(part) * 31) * GREY
    for (x, y), part in accent.items():
        rows[y][x] = ACCENT if part >= 0.5 else round(sharpen(part) * 28) * GREY
    return rows


def choices(white, accent):
    """The colours that the search may give to each edge pixel."""
    reach = 4
    may = {}
    for place, part in white.items():
        if 0 < part < 1:
            level = round(part * 31)
            may[place] = [grey * GREY for grey in range(max(0, level - reach), min(31, level + reach) + 1)]
    for (x, y), part in accent.items():
        for beside in ((x - 1, y), (x + 1, y)):  # a shade so dark that only the edge gets softer
            if part >= 0.35 and beside not in accent:
                may[beside] = [grey * GREY for grey in range(reach + 1)]
        level = round(part * 28)
        if part < 0.65:
            may[x, y] = [grey * GREY for grey in range(max(0, level - reach), min(24, level + reach) + 1)]
        if 0.35 <= part < 0.65:
            may[x, y] += [ACCENT] * len(may[x, y])
    return may


def counts(row):
    """What a row adds to the budget's figures, in their order."""
    repeats = literals = singles = 0
    mixed = False
    x = 0
    while x < WIDTH:
        end = x + 1
        while end < WIDTH and row[end] == row[x]:
            end += 1
        if end - x > 1:
            repeats += 1
            mixed = False
        else:
            singles += 1
            literals += not mixed
            mixed = True
        x = end
    return [row.count(WHITE), row.count(ACCENT), row.count(BLACK), repeats, literals, singles]


def meet_budget(rows, may):
    """Simulated annealing on the edge pixels, until every figure is met."""
    chance = random.Random(1)
    goal = list(BUDGET.values())
    by_row = [counts(row) for row in rows]
    total = [sum(column) for column in zip(*by_row)]
    away = lambda figures: sum(abs(a - b) for a, b in zip(figures, goal))
    places = sorted(may)
    steps = 400_000
    for step in range(steps):
        if total == goal:
            return rows
        heat = 3 * (1 - step / steps) + 0.05
        x, y = chance.choice(places)
        old = rows[y][x]
        rows[y][x] = chance.choice(may[x, y])
        changed = counts(rows[y])
        new_total = [t - b + c for t, b, c in zip(total, by_row[y], changed)]
        worse = away(new_total) - away(total)
        if worse <= 0 or chance.random() < math.exp(-worse / heat):
            total, by_row[y] = new_total, changed
        else:
            rows[y][x] = old
    raise SystemExit(f"the budget is not met: {dict(zip(BUDGET, total))}")


def write_png(file, rows):
    eight = lambda field: field << 3 | field >> 2
    lines = b"".join(b"\0" + bytes(eight(pixel >> shift & 31) for pixel in row for shift in (0, 5, 10)) for row in rows)
    chunk = lambda kind, data: struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    header = struct.pack(">IIBBBBB", WIDTH, HEIGHT, 8, 2, 0, 0, 0)
    with open(file, "wb") as out:
        out.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(lines, 9)) +
                  chunk(b"IEND", b""))


def main():
    if len(sys.argv) != 2:
        raise SystemExit("usage: make_splash.py OUT.png")
    white, accent = draw()
    write_png(sys.argv[1], meet_budget(first_version(white, accent), choices(white, accent)))


if __name__ == "__main__":
    main()
