"""Colour from reflectance: tristimulus values by the summation of CIE 15, CIELAB, colour differences.

Spectra are 36 reflectances, 380 to 730 nm in steps of 10, 1 being the perfect diffuser; illuminant D50, 1931 2-degree
observer. ValueError for a spectrum of another length."""

from __future__ import annotations

import math
from typing import NamedTuple, Sequence, Tuple

WAVELENGTHS: Tuple[int, ...] = tuple(range(380, 740, 10))  # nm
BANDS = len(WAVELENGTHS)


class XYZ(NamedTuple):
    """Tristimulus values; the perfect diffuser has y = 100."""

    x: float
    y: float
    z: float


class Lab(NamedTuple):
    """CIELAB; the perfect diffuser is 100, 0, 0."""

    l: float  # noqa: E741
    a: float
    b: float


# CIE standard illuminant D50 (CIE 15:2018, table 2), relative spectral power.
_D50 = (24.488, 29.871, 49.308, 56.513, 60.034, 57.818, 74.825, 87.247, 90.612, 91.368, 95.109, 91.963, 95.724, 96.613,
        97.129, 102.099, 100.755, 102.317, 100.000, 97.735, 98.918, 93.499, 97.688, 99.269, 99.042, 95.722, 98.857,
        95.667, 98.190, 103.003, 99.133, 87.381, 91.604, 92.889, 76.854, 86.511)

# Colour-matching functions of the CIE 1931 standard colorimetric observer (CIE 018:2019, table 6).
_X = (0.001368, 0.004243, 0.014310, 0.043510, 0.134380, 0.283900, 0.348280, 0.336200, 0.290800, 0.195360, 0.095640,
      0.032010, 0.004900, 0.009300, 0.063270, 0.165500, 0.290400, 0.433450, 0.594500, 0.762100, 0.916300, 1.026300,
      1.062200, 1.002600, 0.854450, 0.642400, 0.447900, 0.283500, 0.164900, 0.087400, 0.046770, 0.022700, 0.011359,
      0.005790, 0.002899, 0.001440)
_Y = (0.000039, 0.000120, 0.000396, 0.001210, 0.004000, 0.011600, 0.023000, 0.038000, 0.060000, 0.090980, 0.139020,
      0.208020, 0.323000, 0.503000, 0.710000, 0.862000, 0.954000, 0.994950, 0.995000, 0.952000, 0.870000, 0.757000,
      0.631000, 0.503000, 0.381000, 0.265000, 0.175000, 0.107000, 0.061000, 0.032000, 0.017000, 0.008210, 0.004102,
      0.002091, 0.001047, 0.000520)
_Z = (0.006450, 0.020050, 0.067850, 0.207400, 0.645600, 1.385600, 1.747060, 1.772110, 1.669200, 1.287640, 0.812950,
      0.465180, 0.272000, 0.158200, 0.078250, 0.042160, 0.020300, 0.008750, 0.003900, 0.002100, 0.001650, 0.001100,
      0.000800, 0.000340, 0.000190, 0.000050, 0.000020, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0)

_SCALE = 100.0 / sum(power * y for power, y in zip(_D50, _Y))
_WEIGHTS = [(_SCALE * power * x, _SCALE * power * y, _SCALE * power * z)
            for power, x, y, z in zip(_D50, _X, _Y, _Z)]


def xyz(spectrum: Sequence[float]) -> XYZ:
    """Tristimulus values of a spectrum."""
    if len(spectrum) != BANDS:
        raise ValueError(f"a spectrum of {len(spectrum)} values instead of {BANDS}")
    sums = [0.0, 0.0, 0.0]
    for weights, value in zip(_WEIGHTS, spectrum):
        for axis in range(3):
            sums[axis] += weights[axis] * value
    return XYZ(*sums)


WHITE = xyz([1.0] * BANDS)  # the perfect diffuser

_KNEE = 6.0 / 29.0  # where the cube root of CIELAB gives way to its straight part (CIE 15, 8.2.1)


def _compress(ratio: float) -> float:
    return math.pow(ratio, 1.0 / 3.0) if ratio > _KNEE**3 else ratio / (3.0 * _KNEE**2) + 4.0 / 29.0


def lab_from_xyz(color: XYZ) -> Lab:
    """CIELAB against `WHITE`."""
    x, y, z = (_compress(value / white) for value, white in zip(color, WHITE))
    return Lab(116.0 * y - 16.0, 500.0 * (x - y), 200.0 * (y - z))


def lab(spectrum: Sequence[float]) -> Lab:
    """CIELAB of a spectrum."""
    return lab_from_xyz(xyz(spectrum))


def delta_e_76(first: Lab, second: Lab) -> float:
    """The CIE 1976 colour difference."""
    return math.dist(first, second)


def _saturation(chroma: float) -> float:
    """From 0 for grey to 1, with its turn at a chroma of 25: the weight of both of CIEDE2000's corrections."""
    return math.sqrt(chroma**7 / (chroma**7 + 25.0**7))


def _mean_hue(first: float, second: float) -> float:
    """The middle of the shorter arc between two hues, in degrees."""
    middle = (first + second) / 2.0
    if abs(first - second) <= 180.0:
        return middle
    return middle + 180.0 if middle < 180.0 else middle - 180.0


def delta_e_2000(first: Lab, second: Lab) -> float:
    """The CIEDE2000 colour difference, all weights 1 (CIE 142, with the cases that the formula leaves open as Sharma,
    Wu and Dalal, "The CIEDE2000 color-difference formula", 2005, have them)."""
    mean_chroma = (math.hypot(first.a, first.b) + math.hypot(second.a, second.b)) / 2.0
    stretch = 1.5 - 0.5 * _saturation(mean_chroma)
    chromas = [math.hypot(color.a * stretch, color.b) for color in (first, second)]
    hues = [math.degrees(math.atan2(color.b, color.a * stretch)) % 360.0 for color in (first, second)]
    chroma = sum(chromas) / 2.0
    if chromas[0] * chromas[1] == 0.0:
        turn, hue = 0.0, sum(hues)  # a colour without hue has the other's
    else:
        turn = hues[1] - hues[0]
        if abs(turn) > 180.0:
            turn -= math.copysign(360.0, turn)
        hue = _mean_hue(hues[0], hues[1])

    def wave(times: int, phase: float) -> float:
        return math.cos(math.radians(times * hue + phase))

    tint = 1.0 - 0.17 * wave(1, -30.0) + 0.24 * wave(2, 0.0) + 0.32 * wave(3, 6.0) - 0.20 * wave(4, -63.0)
    offset = ((first.l + second.l) / 2.0 - 50.0) ** 2
    lightness_step = (second.l - first.l) / (1.0 + 0.015 * offset / math.sqrt(20.0 + offset))
    chroma_step = (chromas[1] - chromas[0]) / (1.0 + 0.045 * chroma)
    hue_step = 2.0 * math.sqrt(chromas[0] * chromas[1]) * math.sin(math.radians(turn) / 2.0)
    hue_step /= 1.0 + 0.015 * chroma * tint
    blue = 30.0 * math.exp(-(((hue - 275.0) / 25.0) ** 2))
    rotation = -2.0 * _saturation(chroma) * math.sin(math.radians(2.0 * blue))
    square = lightness_step**2 + chroma_step**2 + hue_step**2 + rotation * chroma_step * hue_step
    return math.sqrt(max(0.0, square))
