"""What takes several steps with a device: asking a busy one again, measuring a chart.

A procedure is a generator of steps. Whoever runs it (the face for threads, or that for asyncio) carries each step out
and sends back what came of it, or throws what went wrong; a `Row` among the steps goes to the user."""

from __future__ import annotations

import os
import re
import stat
import time
from dataclasses import dataclass
from typing import Any, BinaryIO, Callable, Dict, Generator, Mapping, NamedTuple, Optional, Sequence, Tuple, TypeVar, Union

from . import cgats
from .charts import Layout, Patch, Reading, Row
from .colorimetry import BANDS, Lab
from .errors import BUSY, Cancelled, DeviceError, DeviceGone, Error, ProtocolError, Timeout, device_error
from .wire import Measured, Record, Response

BUSY_PATIENCE = 5.0  # seconds to ask a busy device again: it stays so for a moment after a measurement's last row
BUSY_PAUSE = 0.1  # seconds
CANCELLATION = 60.0  # seconds: a strip that is under way is finished first
DEPARTURE = 1.0  # seconds: a device that goes away cancels what it does before it says so


class Send(NamedTuple):
    """Send a command; gives an exchange, from which its responses are received."""

    name: str
    arguments: Mapping[str, object] = {}
    data: Optional[bytes] = None


class Receive(NamedTuple):
    """Wait for the next response; None: as long as it takes."""

    exchange: Any
    seconds: Optional[float]


class Pause(NamedTuple):
    """Wait."""

    seconds: float


class Closing(BaseException):
    """Thrown into a procedure that the user has had enough of."""


T = TypeVar("T")
Step = Union[Send, Receive, Pause]
Procedure = Generator[Step, Any, T]
RowProcedure = Generator[Union[Step, Row], Any, None]


def first_response(command: Send, seconds: Optional[float], patience: float) -> Procedure[Tuple[Any, Response]]:
    """Sends a command, again while the device is busy and there is patience; its exchange and first response."""
    begin = time.monotonic()
    while True:
        exchange = yield command
        left = None if seconds is None else max(0.0, begin + seconds - time.monotonic())
        response: Response = yield Receive(exchange, left)
        if response.code not in BUSY or time.monotonic() - begin > patience:
            return exchange, response
        yield Pause(BUSY_PAUSE)


def call(command: Send, record: Callable[[], Record], seconds: Optional[float] = None,
         patience: float = BUSY_PATIENCE) -> Procedure[Response]:
    """Sends a command; its first response. DeviceError when that is a refusal."""
    _, response = yield from first_response(command, seconds, patience)
    if response.code != 0:
        raise device_error(command.name, response.code, response.message, record().lock_holder)
    return response


# "DATE LEVEL [PROCESS:THREAD] TEXT". The main thread's lines quote what any client has sent; a worker's do not.
_WORKERS_LINE = re.compile(rb".{24}[A-Z]+ \[(\d+):(?!\1\])\d+\] (.*)")
_MEASURING_ROW = re.compile(rb"TaviIODeviceService::advancedMeasure - measuring row (\d+)\.")
_BY_SPOTS = b"Error scanning, trying to scan using spot"


class SpotLog:
    """What a plug-in's log says of rows that had to be read patch by patch: responses do not tell.

    The log is followed from its end on, also when the plug-in puts a full file aside. What is no regular file is no
    log."""

    def __init__(self, folder: str, name: str) -> None:
        self._path = os.path.join(folder, os.path.basename(name))
        self._rows: Dict[int, bool] = {}
        self._row = -1
        self._unfinished = b""
        self._file = self._open()
        if self._file is not None:
            self._file.seek(0, os.SEEK_END)

    def _open(self) -> Optional[BinaryIO]:
        try:
            file = open(os.open(self._path, os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK | os.O_NOFOLLOW), "rb")
        except OSError:
            return None
        if stat.S_ISREG(os.fstat(file.fileno()).st_mode):
            return file
        file.close()
        return None

    def _read_on(self) -> None:
        assert self._file is not None
        *lines, self._unfinished = (self._unfinished + self._file.read()).split(b"\n")
        for line in lines:
            workers = _WORKERS_LINE.match(line)
            text = workers[2] if workers else b""
            row = _MEASURING_ROW.match(text)
            if row:
                self._row = int(row[1])
                self._rows[self._row] = False
            elif text.startswith(_BY_SPOTS):
                self._rows[self._row] = True

    def was_read_by_spots(self, row: int) -> Optional[bool]:
        """None when the log does not say."""
        if self._file is not None:
            self._read_on()
            try:
                is_aside = not os.path.samestat(os.stat(self._path), os.fstat(self._file.fileno()))
            except OSError:
                is_aside = False
            if is_aside:
                self._read_on()
                self._file.close()
                self._file = self._open()
                if self._file is not None:
                    self._read_on()
        return self._rows.get(row)

    def close(self) -> None:
        if self._file is not None:
            self._file.close()
            self._file = None


@dataclass(frozen=True)
class ScanRequest:
    """What is to be measured, and how. ValueError for what cannot be."""

    layout: Layout
    rows: Optional[Sequence[int]] = None  # None: the whole chart
    spots: int = 0  # readings of each patch instead of strips; at most 5 are made
    low_resolution: bool = False
    seconds: Optional[float] = None  # for each row

    def __post_init__(self) -> None:
        for row in self.rows or ():
            if not 0 <= row < self.layout.rows:
                raise ValueError(f"the chart has rows 0 to {self.layout.rows - 1}, not {row}")
        if self.spots < 0:
            raise ValueError(f"{self.spots} readings of each patch")

    def arguments(self, row: Optional[int] = None) -> Dict[str, object]:
        """Of the command `Measure`."""
        layout = self.layout
        arguments: Dict[str, object] = {"Rows": layout.rows, "Columns": layout.columns,
                                        "LastRowColumns": layout.last_row_columns}
        for name, corner in (("TopLeft", layout.top_left), ("BotLeft", layout.bottom_left),
                             ("BotRight", layout.bottom_right)):
            arguments[name + "X"], arguments[name + "Y"] = corner
        if self.spots:
            arguments["SpotMeasureCount"] = self.spots
        if row is not None:
            arguments["RowToScan"] = row
        return arguments


class Scan:
    """Measures a chart: sets mode and resolution, calibrates when needed, gives the rows as they come. Whatever ends
    it early ends the measurement, too, and sends the head home."""

    def __init__(self, request: ScanRequest, record: Callable[[], Record], log: SpotLog) -> None:
        self._request = request
        self._record = record
        self._log = log
        self._exchange: Any = None
        self._owed = 0  # responses that are still to come
        self._has_moved = False
        self._resolution_is_ours = False

    def run(self) -> RowProcedure:
        try:
            yield from self._prepare()
            yield from self._measure()
        except GeneratorExit:  # nobody is left who would carry out a step
            raise
        except BaseException as problem:
            if not isinstance(problem, DeviceGone):
                yield from self._abandon()
            raise
        yield from self._restore()

    def _call(self, name: str, **arguments: object) -> Procedure[Response]:
        return call(Send(name, arguments), self._record)

    def _prepare(self) -> RowProcedure:
        if self._request.low_resolution and self._record().attributes.get("LowResolutionScan") != "yes":
            self._resolution_is_ours = True
            yield from self._call("SetAttribute", key="LowResolutionScan", value=True)
        if self._record().mode != "ScanningReflectance":
            yield from self._call("SetMode", Mode="ScanningReflectance")
        if self._record().calibration_status != 1:
            self._has_moved = True
            yield from self._call("Calibrate")

    def _measure(self) -> RowProcedure:
        layout, rows = self._request.layout, self._request.rows
        if rows is None:
            yield (yield from self._begin(self._request.arguments(), layout.rows))
            while self._owed:
                yield (yield from self._next_row())
            return
        for row in rows:
            yield (yield from self._begin(self._request.arguments(row), 1))
        if rows and rows[-1] != layout.rows - 1:  # after the chart's last row it goes by itself
            yield from self._call("GoHome")

    def _begin(self, arguments: Mapping[str, object], count: int) -> Procedure[Row]:
        self._owed = count
        self._exchange, response = yield from first_response(Send("Measure", arguments), self._request.seconds,
                                                             BUSY_PATIENCE)
        if response.code in BUSY:
            self._owed, self._has_moved = 0, False  # somebody else measures, whom we leave alone
        else:
            self._has_moved = True
        return (yield from self._row(response))

    def _next_row(self) -> Procedure[Row]:
        response: Response = yield Receive(self._exchange, self._request.seconds)
        return (yield from self._row(response))

    def _row(self, response: Response) -> Procedure[Row]:
        if response.code == 0:
            self._owed -= 1
            return self._taken_apart(response)
        self._owed = 0
        problem = device_error("Measure", response.code, response.message, self._record().lock_holder)
        if isinstance(problem, Cancelled):
            try:
                yield Receive(self._exchange, DEPARTURE)
            except Timeout:
                pass
        raise problem

    def _taken_apart(self, response: Response) -> Row:
        layout, spots = self._request.layout, self._request.spots
        patches = []
        condition = "M0"
        for measured in response.measurements:
            readings = readings_of(measured, layout)
            if readings:
                patches.append(Patch(readings))
                if any(color.attributes.get("Illumination") == "M2" for color in measured.colors):
                    condition = "M2"
        index = patches[0].row if patches else -1
        cells = [(patch.row, patch.column) for patch in patches]
        if not patches or cells != [(index, column) for column in range(layout.first_column(index), layout.columns)]:
            raise ProtocolError("Measure: the device sent a row that is not of the chart")
        return Row(index, tuple(patches), True if spots else self._log.was_read_by_spots(index), condition)

    def _abandon(self) -> Procedure[None]:
        """Ends what is under way on the device: it sends the head home when there is nothing left to cancel."""
        try:
            if self._has_moved or self._owed:
                cancellation = yield Send("CancelMeasure")
                yield Receive(cancellation, CANCELLATION)
            while self._owed and self._exchange:
                response: Response = yield Receive(self._exchange, CANCELLATION)
                self._owed = self._owed - 1 if response.code == 0 else 0
            yield from self._restore()
        except Error:
            pass  # what went wrong first is what the user is told

    def _restore(self) -> Procedure[None]:
        if self._resolution_is_ours:
            yield from self._call("SetAttribute", key="LowResolutionScan", value=False)


def readings_of(measured: Measured, layout: Layout) -> Tuple[Reading, ...]:
    """The readings of a patch, which come as pairs of a spectrum and its CIELAB values. ProtocolError for others."""
    readings = []
    spectra = [color for color in measured.colors if color.space == "Spectral"]
    colors = [color for color in measured.colors if color.space == "Lab"]
    for spectrum, color in zip(spectra, colors):
        try:
            row, column, spot = (int(spectrum.attributes[key]) for key in ("Row", "Column", "SpotIndex"))
            numbers = cgats.single((*color.values, *spectrum.values))
        except (KeyError, ValueError, OverflowError) as problem:
            raise ProtocolError(f"Measure: the device sent a reading that is none: {problem}") from None
        patch = layout.patch_at(row, column)
        if not patch or len(color.values) != 3 or len(spectrum.values) != BANDS:
            raise ProtocolError(f"Measure: the device sent what is no reading of row {row}, column {column}")
        readings.append(Reading(patch.sample_id, row, column, spot, Lab(*numbers[:3]), numbers[3:], patch.fields))
    if len({(reading.row, reading.column) for reading in readings}) > 1:
        raise ProtocolError("Measure: the device sent one patch with the readings of several")
    return tuple(readings)


__all__ = ["Closing", "DeviceError", "Pause", "Procedure", "Receive", "RowProcedure", "Scan", "ScanRequest", "Send",
           "SpotLog", "Step", "call", "first_response", "readings_of"]
