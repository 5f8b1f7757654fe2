"""Charts and what was measured of them: layout files and measurement files, both CGATS.17 text."""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from typing import Dict, Iterable, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

from . import cgats
from .colorimetry import BANDS, Lab, lab
from .errors import FileError

HIGHEST_FACTOR = 2.0  # no paper sends back twice the light: what is above is percent


class Point(NamedTuple):
    """A place on the table, in table coordinates."""

    x: float
    y: float


@dataclass(frozen=True)
class LayoutPatch:
    """One patch as the layout describes it; `row` and `column` count from 0, over the full grid."""

    sample_id: str
    row: int
    column: int
    spectrum: Optional[Tuple[float, ...]] = None  # 36 reflectances, 1 being the perfect diffuser
    fields: Mapping[str, str] = field(default_factory=dict)  # all others, as the file has them

    @property
    def lab(self) -> Optional[Lab]:
        """CIELAB of the spectrum, under D50 for the 2-degree observer."""
        return lab(self.spectrum) if self.spectrum else None


class Layout:
    """A chart: a grid of patches, and where the centres of three of its corner cells lie on the table.

    A short last row holds the rightmost `last_row_columns` cells of the grid; 0 means that it is full. `patches` are
    in the order of rows and columns. `keywords` holds what else the header says. ValueError where no chart is so."""

    def __init__(self, rows: int, columns: int, top_left: Sequence[float], bottom_left: Sequence[float],
                 bottom_right: Sequence[float], *, last_row_columns: int = 0,
                 patches: Optional[Iterable[LayoutPatch]] = None, keywords: Optional[Mapping[str, str]] = None) -> None:
        self.rows, self.columns, self.last_row_columns = rows, columns, last_row_columns
        self.top_left, self.bottom_left, self.bottom_right = (
            Point(*map(float, corner)) for corner in (top_left, bottom_left, bottom_right))
        self.keywords: Dict[str, str] = dict(keywords or {})
        problem = self._problem()
        if problem:
            raise ValueError(problem)
        cells = [(row, column) for row in range(rows) for column in range(self.first_column(row), columns)]
        if patches is None:
            patches = [LayoutPatch(f"{row + 1}-{column + 1}", row, column) for row, column in cells]
        self.patches = sorted(patches, key=lambda patch: (patch.row, patch.column))
        found = [(patch.row, patch.column) for patch in self.patches]
        if found != cells:
            odd = sorted(set(found) ^ set(cells)) or [cell for cell in found if found.count(cell) > 1]
            raise ValueError("no patch, or no such cell, or several patches: row {}, column {}".format(*odd[0]))
        self._by_cell = {(patch.row, patch.column): patch for patch in self.patches}

    def _problem(self) -> str:
        if self.rows < 1 or self.columns < 1:
            return "the numbers of rows and columns must be at least 1"
        if not 0 <= self.last_row_columns <= self.columns:
            return f"the number of columns in the last row must lie between 0 and {self.columns}"
        corners = self.top_left, self.bottom_left, self.bottom_right
        if not all(abs(value) <= 1e6 for corner in corners for value in corner):
            return "the corners must be finite"
        across = [end - begin for begin, end in zip(self.bottom_left, self.bottom_right)]
        down = [end - begin for begin, end in zip(self.top_left, self.bottom_left)]
        width, height = math.hypot(*across), math.hypot(*down)
        if self.columns > 1 and width < 1e-6:
            return "the bottom left and the bottom right corner are one point"
        if self.rows > 1 and height < 1e-6:
            return "the top left and the bottom left corner are one point"
        flat = abs(across[0] * down[1] - across[1] * down[0]) < 1e-6 * width * height
        return "the three corners lie on one line" if self.columns > 1 and self.rows > 1 and flat else ""

    def first_column(self, row: int) -> int:
        """The first column of a row that holds a patch: 0 but for a short last row."""
        return self.columns - self.last_row_columns if row == self.rows - 1 and self.last_row_columns else 0

    def patch_at(self, row: int, column: int) -> Optional[LayoutPatch]:
        """The patch of a cell; None where there is none."""
        return self._by_cell.get((row, column))

    @classmethod
    def read(cls, path: str, *, grid: Optional[Tuple[int, int, int]] = None,
             corners: Optional[Tuple[Sequence[float], Sequence[float], Sequence[float]]] = None) -> Layout:
        """Reads a layout file. `grid` (rows, columns, columns of the last row or 0) and `corners` (top left, bottom
        left, bottom right) stand in for what the file says. OSError when it cannot be read, FileError when it makes
        no sense."""
        return cls.parse(cgats.read_text(path), path, grid=grid, corners=corners)

    @classmethod
    def parse(cls, text: str, name: str = "layout", *, grid: Optional[Tuple[int, int, int]] = None,
              corners: Optional[Tuple[Sequence[float], Sequence[float], Sequence[float]]] = None) -> Layout:
        """The same from text; `name` stands for the file in error texts."""
        table = cgats.Table(text, name)
        if grid is None:
            last = table.integer("CHART_LAST_ROW_COLUMNS") if "CHART_LAST_ROW_COLUMNS" in table.keywords else 0
            grid = (table.integer("CHART_ROWS"), table.integer("CHART_COLUMNS"), last)
        if corners is None:
            corners = (_corner(table, "TOP_LEFT"), _corner(table, "BOTTOM_LEFT"), _corner(table, "BOTTOM_RIGHT"))
        keywords = {keyword: value for keyword, value in table.keywords.items()
                    if not keyword.startswith(("CHART_", "NUMBER_OF_"))}
        if not 0 < len(table.sets) <= grid[0] * grid[1]:
            table.fail(table.lines["NUMBER_OF_SETS"], f"the grid has other than {len(table.sets)} patches")
        try:
            return cls(grid[0], grid[1], *corners, last_row_columns=grid[2], keywords=keywords,
                       patches=_patches(table, grid))
        except FileError:
            raise
        except ValueError as problem:
            table.fail(0, str(problem))

    def text(self) -> str:
        """The layout as a file has it; fields that were read stand in it to the character, bands as numbers."""
        own: Dict[str, str] = {"CHART_ROWS": str(self.rows), "CHART_COLUMNS": str(self.columns),
                               "CHART_LAST_ROW_COLUMNS": str(self.last_row_columns)}
        for name, corner in (("TOP_LEFT", self.top_left), ("BOTTOM_LEFT", self.bottom_left),
                             ("BOTTOM_RIGHT", self.bottom_right)):
            own[f"CHART_{name}"] = f"{corner.x!r} {corner.y!r}"
        others = _field_names(self.patches)
        has_spectra = all(patch.spectrum for patch in self.patches)
        sets = ([patch.sample_id, str(patch.row), str(patch.column), *_values(patch.fields, others),
                 *(map(repr, patch.spectrum or ()) if has_spectra else ())] for patch in self.patches)
        return cgats.table_text({**self.keywords, **own}, ["SAMPLE_ID", "ROW", "COLUMN", *others,
                                                           *(cgats.SPECTRAL_FIELDS if has_spectra else ())],
                                sets, declared=own)

    def write(self, path: str) -> None:
        """Writes a layout file, whole or not at all. OSError when it cannot be written."""
        cgats.replace_file(path, self.text())


@dataclass(frozen=True)
class Reading:
    """One reading of one patch. `spot_index` counts the readings of the patch from 0; the numbers are 32-bit floats."""

    sample_id: str
    row: int
    column: int
    spot_index: int
    lab: Lab
    spectrum: Tuple[float, ...]  # 36 reflectances
    fields: Mapping[str, str] = field(default_factory=dict)  # of the layout, as it has them


@dataclass(frozen=True)
class Patch:
    """What was measured of one patch: one reading, or several spots."""

    readings: Tuple[Reading, ...]

    @property
    def sample_id(self) -> str:
        return self.readings[0].sample_id

    @property
    def row(self) -> int:
        return self.readings[0].row

    @property
    def column(self) -> int:
        return self.readings[0].column

    @property
    def spectrum(self) -> Tuple[float, ...]:
        """36 reflectances, 380 to 730 nm in steps of 10; of several spots the mean."""
        if len(self.readings) == 1:
            return self.readings[0].spectrum
        return tuple(math.fsum(band) / len(band) for band in zip(*(reading.spectrum for reading in self.readings)))

    @property
    def lab(self) -> Lab:
        """CIELAB as the instrument has it; of several spots that of the mean spectrum."""
        return self.readings[0].lab if len(self.readings) == 1 else lab(self.spectrum)


@dataclass(frozen=True)
class Row:
    """One row of a chart, in the order of its columns. `by_spots`: whether it was read patch by patch, as asked for or
    because no strip could be; None when that cannot be told. `condition`: M0 or M2."""

    index: int
    patches: Tuple[Patch, ...]
    by_spots: Optional[bool] = None
    condition: str = "M0"

    @property
    def readings(self) -> Tuple[Reading, ...]:
        """All readings, patch after patch."""
        return tuple(reading for patch in self.patches for reading in patch.readings)


class Measurement:
    """A measurement: `readings`, the `condition` (M0, as the lamp shines; M2, without its ultraviolet part), and what
    else the header says (`keywords`)."""

    def __init__(self, readings: Iterable[Reading] = (), condition: str = "M0",
                 keywords: Optional[Mapping[str, str]] = None) -> None:
        self.readings: List[Reading] = list(readings)
        self.condition = condition
        self.keywords: Dict[str, str] = dict(keywords or {})

    @classmethod
    def of(cls, layout: Layout) -> Measurement:
        """A measurement of a chart, before its first row."""
        return cls(keywords={keyword: layout.keywords.get(keyword, "") for keyword in ("ORIGINATOR", "DESCRIPTOR")})

    def add(self, row: Row) -> None:
        """Adds a row that was measured."""
        self.readings += row.readings
        self.condition = row.condition

    @classmethod
    def read(cls, path: str) -> Measurement:
        """Reads a measurement file. OSError when it cannot be read, FileError when it makes no sense."""
        return cls.parse(cgats.read_text(path), path)

    @classmethod
    def parse(cls, text: str, name: str = "measurement") -> Measurement:
        """The same from text; `name` stands for the file in error texts."""
        table = cgats.Table(text, name)
        condition = table.required("MEASUREMENT_CONDITION")
        if condition not in ("M0", "M2"):
            table.fail(table.lines["MEASUREMENT_CONDITION"], "MEASUREMENT_CONDITION must be M0 or M2")
        cell = [table.field(name) for name in ("SAMPLE_ID", "ROW", "COLUMN", "SPOT_INDEX")]
        colors = [table.field(name) for name in ("LAB_L", "LAB_A", "LAB_B")]
        bands = table.spectral_fields()
        if bands is None:
            table.fail(0, "the fields SPECTRAL_NM380 to SPECTRAL_NM730, in steps of 10, are missing")
        others = table.other_fields()
        readings = []
        for line, values in table.sets:
            numbers = table.numbers(line, [values[position] for position in colors + bands])
            row, column, spot = _integers(table, line, [values[position] for position in cell[1:]])
            try:
                numbers = cgats.single(numbers)
            except OverflowError:
                table.fail(line, "a number that is too large")
            readings.append(Reading(values[cell[0]], row, column, spot, Lab(*numbers[:3]), numbers[3:],
                                    {name: values[position] for name, position in others.items()}))
        keywords = {keyword: value for keyword, value in table.keywords.items()
                    if not keyword.startswith("NUMBER_OF_") and keyword != "MEASUREMENT_CONDITION"}
        return cls(readings, condition, keywords)

    def text(self) -> str:
        """The measurement as a file has it, one line for each reading."""
        others = _field_names(self.readings)
        sets = ([cgats.Quoted(reading.sample_id), str(reading.row), str(reading.column), str(reading.spot_index),
                 *_values(reading.fields, others), *map(cgats.shortest, (*reading.lab, *reading.spectrum))]
                for reading in self.readings)
        header = {"ORIGINATOR": "", "DESCRIPTOR": "", **self.keywords, "ILLUMINATION_NAME": "D50",
                  "OBSERVER_ANGLE": "2", "MEASUREMENT_CONDITION": self.condition}
        return cgats.table_text(header, ["SAMPLE_ID", "ROW", "COLUMN", "SPOT_INDEX", *others, "LAB_L", "LAB_A", "LAB_B",
                                         *cgats.SPECTRAL_FIELDS],
                                sets, declared=("MEASUREMENT_CONDITION", "SPOT_INDEX"))

    def write(self, path: str) -> None:
        """Writes a measurement file, whole or not at all. OSError when it cannot be written."""
        cgats.replace_file(path, self.text())


def _corner(table: cgats.Table, name: str) -> Point:
    keyword = f"CHART_{name}"
    texts = table.required(keyword).split()
    if len(texts) != 2:
        table.fail(table.lines[keyword], f'{keyword} must be two numbers: "{" ".join(texts)[:40]}"')
    return Point(*table.numbers(table.lines[keyword], texts))


def _integers(table: cgats.Table, line: int, texts: Sequence[str]) -> List[int]:
    try:
        return [int(text) for text in texts]
    except ValueError as problem:
        table.fail(line, f"no whole number: {problem}")


def _patches(table: cgats.Table, grid: Tuple[int, int, int]) -> List[LayoutPatch]:
    rows, columns, last = grid
    name = table.field("SAMPLE_ID")
    has_cells = "ROW" in table.fields or "COLUMN" in table.fields
    cells = [table.field("ROW"), table.field("COLUMN")] if has_cells else []
    order = iter((row, column) for row in range(rows)
                 for column in range(columns - last if last and row == rows - 1 else 0, columns))
    bands = table.spectral_fields()
    others = table.other_fields()
    patches = []
    taken: Dict[Tuple[int, int], int] = {}
    for line, values in table.sets:
        if cells:
            row, column = _integers(table, line, [values[position] for position in cells])
        else:
            row, column = next(order, (rows, columns))
        if taken.setdefault((row, column), line) != line:
            table.fail(line, f"a second patch at row {row}, column {column}")
        spectrum = table.numbers(line, [values[position] for position in bands]) if bands else None
        patches.append(LayoutPatch(values[name], row, column, spectrum,
                                   {field: values[position] for field, position in others.items()}))
    if bands and max(value for patch in patches for value in patch.spectrum or ()) > HIGHEST_FACTOR:
        patches = [LayoutPatch(patch.sample_id, patch.row, patch.column,
                               tuple(value / 100 for value in patch.spectrum or ()), patch.fields)
                   for patch in patches]
    return patches


def _field_names(things: Sequence[Union[LayoutPatch, Reading]]) -> List[str]:
    return list(dict.fromkeys(name for thing in things for name in thing.fields))


def _values(fields: Mapping[str, str], names: Sequence[str]) -> List[str]:
    return [fields.get(name, "") for name in names]


__all__ = ["BANDS", "Layout", "LayoutPatch", "Measurement", "Patch", "Point", "Reading", "Row"]
