"""How far a scan is, for its user to see."""

from __future__ import annotations

import sys
import time
from typing import Callable, NamedTuple, Sequence, TextIO, Union

from .charts import Layout, Row


class Progress(NamedTuple):
    """How far a scan is after a row."""

    row: Row
    rows_done: int
    rows: int
    patches_done: int
    patches: int
    seconds: float  # since the scan began

    @property
    def seconds_left(self) -> float:
        """As the patches so far suggest."""
        return self.seconds / self.patches_done * (self.patches - self.patches_done)


Shown = Union[bool, Callable[[Progress], None]]


class Reporter:
    """Counts rows, and tells after each: a callable, or with True standard error: a bar that is redrawn in place on a
    terminal, else a line for each row."""

    def __init__(self, shown: Shown, layout: Layout, rows: Sequence[int]) -> None:
        self._show = shown if callable(shown) else self._write if shown else None
        self._rows = len(rows)
        self._patches = sum(layout.columns - layout.first_column(row) for row in rows)
        self._rows_done = self._patches_done = 0
        self._begin = time.monotonic()

    def row(self, row: Row) -> None:
        """A row has come."""
        self._rows_done += 1
        self._patches_done += len(row.patches)
        if self._show:
            self._show(Progress(row, self._rows_done, self._rows, self._patches_done, self._patches,
                                time.monotonic() - self._begin))

    def _write(self, progress: Progress) -> None:
        write_progress(progress, sys.stderr)


def write_progress(progress: Progress, stream: TextIO) -> None:
    """The line of `Reporter`."""
    spots = ", by spots" if progress.row.by_spots else ""
    if not stream.isatty():
        stream.write(f"row {progress.row.index}: {len(progress.row.patches)} patches{spots}\n")
        return
    full = 30 * progress.patches_done // progress.patches
    left = round(progress.seconds_left)
    is_last = progress.rows_done == progress.rows
    stream.write(f"\r[{'#' * full}{'.' * (30 - full)}] row {progress.rows_done}/{progress.rows}  "
                 f"{progress.patches_done}/{progress.patches} patches  {left // 60}:{left % 60:02} left\033[K"
                 + "\n" * is_last)
    stream.flush()
