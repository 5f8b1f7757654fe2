"""What can go wrong, as exceptions; all of them are an `Error`."""

from __future__ import annotations

from typing import Optional

LOCKED = -1022
CANCELLED = -1023
BUSY = (4, 5, 8, 23)

# What the codes mean, and whether the instrument's own text, when there is one, says more.
_MEANINGS = {
    -1: ("the device does not do this", False),
    LOCKED: ("the device is locked by another client", False),
    CANCELLED: ("the measurement was cancelled", False),
    1: ("the instrument has no such option", True),
    3: ("no table answers", True),
    4: ("the mode cannot change while a measurement runs", False),
    5: ("no calibration while a measurement runs", False),
    6: ("the device measures charts and positions only", False),
    7: ("the device has no such mode", False),
    8: ("a calibration is under way", False),
    10: ("the option cannot be written", True),
    11: ("the device is not calibrated", False),
    13: ("the device is not ready to measure", False),
    14: ("the instrument failed", True),
    15: ("the device knows no such command", False),
    16: ("the calibration failed", True),
    22: ("the chart has no such rows or columns", True),
    23: ("a measurement is running", False),
    24: ("not in this measurement mode", True),
    25: ("the instrument recognised a different number of patches", True),
    35: ("no spectrophotometer on the table", False),
    36: ("not a position on the table", True),
    47: ("the device is not calibrated and does not calibrate on a press of its button", False),
}


class Error(Exception):
    """Whatever this package raises by itself."""


class NoDevice(Error, LookupError):
    """There is no such table, or there are several and none of them was named."""


class Timeout(Error, TimeoutError):
    """The answer did not come in the time that the caller gave it."""


class ProtocolError(Error):
    """What came over a connection makes no sense."""


class FileError(Error, ValueError):
    """A layout or measurement file that makes no sense: `path`, `line` (from 1; 0: the file as a whole), `reason`."""

    def __init__(self, path: str, line: int, reason: str) -> None:
        super().__init__(f"{path}:{line}: {reason}" if line else f"{path}: {reason}")
        self.path = path
        self.line = line
        self.reason = reason


class DeviceError(Error):
    """The device refused a command or failed: `command`, its `code` (docs/commands.md lists them) and `text`.

    `code` is None where no answer came from the device."""

    def __init__(self, command: str, code: Optional[int], text: str) -> None:
        super().__init__(": ".join([command] * bool(command) + [str(code)] * (code is not None) + [text]))
        self.command = command
        self.code = code
        self.text = text


class Busy(DeviceError):
    """The device measures or calibrates (codes 4, 5, 8 and 23), and did so for longer than it was asked again."""


class Locked(DeviceError):
    """Another client holds the device lock; `holder` is its process identifier, "" when it has just let go."""

    def __init__(self, command: str, code: Optional[int], text: str, holder: str = "") -> None:
        super().__init__(command, code, text + (f", process {holder}{_name_of(holder)}" if holder else ""))
        self.holder = holder


class Cancelled(DeviceError):
    """The measurement was cancelled: by another client, or because the device was reset."""


class DeviceGone(DeviceError):
    """The table was taken away, or its plug-in ended or sent what makes no sense. `code` is None."""

    def __init__(self, text: str = "the device went away", command: str = "") -> None:
        super().__init__(command, None, text)


def _name_of(process: str) -> str:
    try:
        with open(f"/proc/{int(process)}/comm", encoding="utf-8", errors="replace") as file:
            return f" ({file.read().strip()})"
    except ValueError:
        return ""
    except OSError:
        return ", which has ended: for up to 30 seconds"


def device_error(command: str, code: int, message: str, holder: str) -> DeviceError:
    """The exception for an answer; `holder` is whoever holds the device lock."""
    meaning, is_the_instruments = _MEANINGS.get(code, ("the instrument failed", True))
    text = message if is_the_instruments and message else meaning
    if code == LOCKED:
        return Locked(command, code, text, holder)
    kind = Busy if code in BUSY else Cancelled if code == CANCELLED else DeviceError
    return kind(command, code, text)
