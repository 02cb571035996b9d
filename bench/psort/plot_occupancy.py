#!/usr/bin/env python3
"""Draws the rules moved per add against occupancy, from what `placement_bench --csv FILE` wrote, as an SVG file.

usage: plot_occupancy.py FILE.csv OUT.svg [SLOTS]   (SLOTS: of the tables to draw, default 1000)

One line per fill, solid for the library and dashed for the nearest-slot baseline. The vertical axis is logarithmic; a
class of occupancy in which nothing moved is drawn on its lower edge.
"""
import csv
import math
import sys
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 960, 500
LEFT, RIGHT, TOP, BOTTOM = 60, 690, 50, 440
LEAST, MOST = 0.01, 1000
TRACES = {
    "fill, random distinct": "#1f77b4",
    "fill, clustered batches": "#d62728",
    "fill, 85 unequal levels": "#2ca02c",
    "fill, 5 levels": "#9467bd",
    "fill, ascending": "#8c564b",
}


def x_of(occupancy):
    return LEFT + occupancy * (RIGHT - LEFT)


def y_of(moved):
    part = math.log(min(max(moved, LEAST), MOST) / LEAST) / math.log(MOST / LEAST)
    return BOTTOM - part * (BOTTOM - TOP)


def read(path, slots):
    """{(trace, placement): [(occupancy, moved)]}"""
    lines = {}
    with open(path, newline="") as file:
        for row in csv.DictReader(file):
            if row["slots"] == slots and row["trace"] in TRACES:
                points = lines.setdefault((row["trace"], row["placement"]), [])
                points.append((float(row["occupancy"]), float(row["rules moved per add"])))
    return lines


def axes():
    for tenth in range(11):
        x = x_of(tenth / 10)
        yield f'<path d="M{x:.1f} {TOP}V{BOTTOM}" stroke="#ddd"/>'
        yield f'<text x="{x:.1f}" y="{BOTTOM + 18}" text-anchor="middle">{tenth * 10} %</text>'
    for power in range(-2, 4):
        y = y_of(10.0**power)
        yield f'<path d="M{LEFT} {y:.1f}H{RIGHT}" stroke="#ddd"/>'
        yield f'<text x="{LEFT - 6}" y="{y + 4:.1f}" text-anchor="end">{10.0**power:g}</text>'
    yield f'<text x="{(LEFT + RIGHT) / 2}" y="{BOTTOM + 40}" text-anchor="middle">slots in use</text>'


def line(points, colour, dashed):
    path = " ".join(f"{x_of(occupancy):.1f},{y_of(moved):.1f}" for occupancy, moved in points)
    dash = ' stroke-dasharray="5 4"' if dashed else ""
    return f'<polyline fill="none" stroke="{colour}" stroke-width="1.8"{dash} points="{path}"/>'


def key():
    y = TOP + 10
    for trace, colour in TRACES.items():
        yield f'<path d="M{RIGHT + 16} {y - 4}h24" stroke="{colour}" stroke-width="3"/>'
        yield f'<text x="{RIGHT + 46}" y="{y}">{escape(trace)}</text>'
        y += 20
    yield f'<text x="{RIGHT + 16}" y="{y + 10}">solid: the library</text>'
    yield f'<text x="{RIGHT + 16}" y="{y + 28}">dashed: nearest free slot</text>'


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    slots = sys.argv[3] if len(sys.argv) == 4 else "1000"
    lines = read(sys.argv[1], slots)
    if not lines:
        sys.exit(f"{sys.argv[1]}: no fill of {slots} slots")
    with open(sys.argv[2], "w") as svg:
        svg.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
                  'font-family="sans-serif" font-size="12">\n<rect width="100%" height="100%" fill="white"/>\n'
                  f'<text x="{LEFT}" y="26" font-size="15">Rules moved per add against occupancy, {slots} slots</text>\n')
        for element in axes():
            svg.write(element + "\n")
        for (trace, placement), points in lines.items():
            svg.write(line(points, TRACES[trace], placement != "library") + "\n")
        for element in key():
            svg.write(element + "\n")
        svg.write("</svg>\n")


if __name__ == "__main__":
    main()
