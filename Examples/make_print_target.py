#!/usr/bin/env python3
"""Makes print-target.txt: a chart as a printer's profiling target would be, printed with four inks.

    make_print_target.py            writes print-target.txt beside this file
    make_print_target.py --check    compares with it instead; exit status 1 when it differs

The spectra follow the Yule-Nielsen modified Neugebauer model:

* Each ink is a filter. Its density over wavelength is a smooth curve (below); inks printed over each other
  multiply. That gives the spectra of the 16 Neugebauer primaries, from bare paper to all four inks.
* A dot prints larger than it was asked for: a -> a + 4 g a (1 - a), with g = 0.12 the gain of the 50 % dot.
* The primaries cover the paper with the areas of randomly placed dots (Demichel).
* Light spreads in the paper, so the primaries mix by the power 1/n of their reflectance, n = 1.8 (Yule-Nielsen).

No random numbers: the same file comes out everywhere.
"""

import itertools
import math
import os
import sys

OUTPUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "print-target.txt")

WAVELENGTHS = range(380, 740, 10)
DOT_GAIN = 0.12
YULE_NIELSEN = 1.8

ROWS = 11
COLUMNS = 21
LAST_ROW_COLUMNS = 13
PITCH = 9.5
TOP_LEFT = (40.0, 40.0)


def bell(wavelength, height, centre, width):
    return height * math.exp(-(((wavelength - centre) / width) ** 2))


def paper(wavelength):
    return 0.89 - 0.22 * math.exp(-(wavelength - 380) / 35.0)


def cyan(wavelength):
    return bell(wavelength, 1.40, 628, 80) + bell(wavelength, 0.15, 400, 40) + 0.02


def magenta(wavelength):
    return bell(wavelength, 1.25, 555, 42) + bell(wavelength, 0.55, 510, 35) + bell(wavelength, 0.20, 390, 40) + 0.02


def yellow(wavelength):
    return 1.35 / (1.0 + math.exp((wavelength - 492) / 11.0)) + 0.01


def black(wavelength):
    return 1.65 - 0.0004 * (wavelength - 380)


INKS = (cyan, magenta, yellow, black)


def primaries(wavelength):
    """Reflectances of the 16 combinations of inks, in the order of itertools.product."""
    densities = [ink(wavelength) for ink in INKS]
    return [
        paper(wavelength) * 10.0 ** -sum(d for d, isPrinted in zip(densities, printed) if isPrinted)
        for printed in itertools.product((False, True), repeat=len(INKS))
    ]


# What every patch mixes, one list per wavelength, raised to the power of the model.
MIXED = [[r ** (1.0 / YULE_NIELSEN) for r in primaries(wavelength)] for wavelength in WAVELENGTHS]


def reflectances(cmyk):
    dots = [a + 4.0 * DOT_GAIN * a * (1.0 - a) for a in (ink / 100.0 for ink in cmyk)]
    areas = [
        math.prod(dot if isPrinted else 1.0 - dot for dot, isPrinted in zip(dots, printed))
        for printed in itertools.product((False, True), repeat=len(INKS))
    ]
    return [sum(area * r for area, r in zip(areas, mixed)) ** YULE_NIELSEN for mixed in MIXED]


def patches():
    """The ink amounts in percent, row after row; the short last row holds its patches only."""
    ramp = range(0, 101, 5)
    rows = [[(0, 0, 0, k) for k in ramp]]
    rows.append([(c, 0, 0, 0) for c in ramp])
    rows.append([(0, m, 0, 0) for m in ramp])
    rows.append([(0, 0, y, 0) for y in ramp])
    rows.append([(0, t, t, 0) for t in ramp])
    rows.append([(t, 0, t, 0) for t in ramp])
    rows.append([(t, t, 0, 0) for t in ramp])
    # Three inks beside black alone, for the grey balance: each pair is close, but not the same.
    rows.append([(t, t * 0.8, t * 0.75, 0) if i % 2 else (0, 0, 0, t) for i, t in enumerate(ramp)])
    # Evenness of the print: one grey three times running, at both ends and in the middle.
    even = [(40, 30, 30, 10)] * 3
    tints = [(c, m, 20, 0) for c in (10, 40, 70) for m in (70, 10)]
    rows.append(even + tints + even + tints[::-1] + even)
    # Dark and light turn by turn over all hues.
    hues = [(100, 0, 0), (100, 50, 0), (100, 100, 0), (50, 100, 0), (0, 100, 0), (0, 100, 50), (0, 100, 100),
            (0, 50, 100), (0, 0, 100), (50, 0, 100), (100, 0, 100), (100, 0, 50)]
    turns = list(itertools.islice(itertools.cycle(hues), COLUMNS))
    rows.append([(c, m, y, 45) if i % 2 else (c * 0.4, m * 0.4, y * 0.4, 0)
                 for i, (c, m, y) in enumerate(turns)])
    # Solids and their overprints, then colours that people know: skin, sky, grass.
    rows.append([(100, 0, 0, 0), (0, 100, 0, 0), (0, 0, 100, 0), (100, 100, 0, 0), (0, 100, 100, 0),
                 (100, 0, 100, 0), (100, 100, 100, 0), (0, 0, 0, 100), (10, 30, 35, 0), (20, 55, 60, 10),
                 (60, 25, 0, 0), (60, 20, 95, 10), (75, 65, 60, 80)])
    return rows


def number(value):
    return "%g" % round(value, 4)


def chart():
    right = TOP_LEFT[0] + PITCH * (COLUMNS - 1)
    bottom = TOP_LEFT[1] + PITCH * (ROWS - 1)
    rows = patches()
    assert [len(row) for row in rows] == [COLUMNS] * (ROWS - 1) + [LAST_ROW_COLUMNS]
    fields = ["SAMPLE_ID", "ROW", "COLUMN", "CMYK_C", "CMYK_M", "CMYK_Y", "CMYK_K"]
    fields += ["SPECTRAL_NM%d" % wavelength for wavelength in WAVELENGTHS]
    lines = [
        "CGATS.17",
        'ORIGINATOR "make_print_target.py"',
        'DESCRIPTOR "Four-ink print target, Yule-Nielsen modified Neugebauer model"',
    ]
    for keyword, value in (
            ("CHART_ROWS", "%d" % ROWS),
            ("CHART_COLUMNS", "%d" % COLUMNS),
            ("CHART_LAST_ROW_COLUMNS", "%d" % LAST_ROW_COLUMNS),
            ("CHART_TOP_LEFT", "%g %g" % TOP_LEFT),
            ("CHART_BOTTOM_LEFT", "%g %g" % (TOP_LEFT[0], bottom)),
            ("CHART_BOTTOM_RIGHT", "%g %g" % (right, bottom))):
        lines.append('KEYWORD "%s"' % keyword)
        lines.append('%s "%s"' % (keyword, value))
    lines += ["NUMBER_OF_FIELDS %d" % len(fields), "BEGIN_DATA_FORMAT", " ".join(fields), "END_DATA_FORMAT"]
    lines += ["NUMBER_OF_SETS %d" % sum(len(row) for row in rows), "BEGIN_DATA"]
    for r, row in enumerate(rows):
        for c, cmyk in enumerate(row, start=COLUMNS - len(row)):
            name = "%s%d" % (chr(ord("A") + r), c + 1)
            values = [name, str(r), str(c)] + [number(ink) for ink in cmyk]
            lines.append(" ".join(values + ["%.4f" % value for value in reflectances(cmyk)]))
    lines.append("END_DATA")
    return "\n".join(lines) + "\n"


def main(arguments):
    if arguments == ["--check"]:
        with open(OUTPUT, encoding="ascii") as file:
            if file.read() != chart():
                print("print-target.txt is not what make_print_target.py makes", file=sys.stderr)
                return 1
        return 0
    if arguments:
        print(__doc__, file=sys.stderr)
        return 2
    with open(OUTPUT, "w", encoding="ascii", newline="\n") as file:
        file.write(chart())
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
