"""Frames of property lists, and what they say. Bytes in, values out: nothing here reads or writes anything."""

from __future__ import annotations

import math
import plistlib
import struct
from dataclasses import dataclass, field
from types import MappingProxyType
from typing import Any, Dict, List, Mapping, Optional, Tuple, Type, TypeVar, Union

from .errors import ProtocolError

LARGEST_FRAME = 16 << 20  # bytes
MOST_VALUES = 1 << 18  # of one response: a property list may name one array again and again

T = TypeVar("T")


class FrameReader:
    """Takes a stream apart into the payloads of its frames."""

    def __init__(self) -> None:
        self._unread = bytearray()

    def feed(self, data: bytes) -> List[bytes]:
        """Takes what has arrived; the payloads that are whole. ProtocolError for a length that no frame has."""
        self._unread += data
        payloads = []
        begin = 0
        while len(self._unread) - begin >= 4:
            (length,) = struct.unpack_from(">I", self._unread, begin)
            if not 1 <= length <= LARGEST_FRAME:
                raise ProtocolError(f"a frame of {length} bytes")
            if len(self._unread) - begin - 4 < length:
                break
            payloads.append(bytes(self._unread[begin + 4 : begin + 4 + length]))
            begin += 4 + length
        del self._unread[:begin]
        return payloads


def frame(content: Mapping[str, Any]) -> bytes:
    """A frame that holds a dictionary. ValueError when it is larger than a frame may be."""
    payload = plistlib.dumps(dict(content), fmt=plistlib.FMT_BINARY, sort_keys=False)
    if len(payload) > LARGEST_FRAME:
        raise ValueError(f"a command of {len(payload)} bytes")
    return struct.pack(">I", len(payload)) + payload


def text_of(value: object) -> str:
    """A command's argument as its text: numbers so that they read back to the same, flags as "yes" and "no"."""
    if isinstance(value, bool):
        return "yes" if value else "no"
    return repr(value) if isinstance(value, float) else str(value)


def command_frame(ticket: str, name: str, arguments: Mapping[str, object], data: Optional[bytes], device: str,
                  path: str) -> bytes:
    """A command, as a frame. ValueError when it is too large."""
    content: Dict[str, Any] = {"Type": "Command", "Name": name, "Ticket": ticket, "Device": device,
                               "DevicePath": path,
                               "Arguments": {key: text_of(value) for key, value in arguments.items()}}
    if data is not None:
        content["Data"] = data
    return frame(content)


@dataclass(frozen=True)
class Record:
    """What a device published of itself. docs/commands.md says what the fields and attributes mean."""

    name: str
    path: str
    display_name: str = ""
    serial_number: str = ""  # empty while no spectrophotometer is on the table
    service_version: str = ""
    modes: Tuple[str, ...] = ()
    mode: str = ""
    calibration_status: int = 0  # 0 not calibrated, -1 a calibration is under way, 1 calibrated
    lock_holder: str = ""  # a process identifier; "": nobody
    enabled: bool = False
    available: bool = False
    connected: bool = False
    software_measurement_available: bool = False
    locked: bool = False
    proxy: bool = False
    attributes: Mapping[str, str] = field(default_factory=lambda: MappingProxyType({}))


@dataclass(frozen=True)
class Color:
    """One colour of a measurement: `space` "Spectral" (36 reflectances, 380 to 730 nm), "Lab" or "Position"."""

    space: str
    values: Tuple[float, ...]
    attributes: Mapping[str, str]


@dataclass(frozen=True)
class Measured:
    """What a response says of one patch: two colours, `Spectral` and `Lab`, for each reading of it."""

    mode: str
    colors: Tuple[Color, ...]


@dataclass(frozen=True)
class Response:
    """An answer of the device. `code` is 0 for success; `message` says something only beside another one."""

    ticket: str
    name: str
    device: str
    device_path: str
    code: int
    message: str
    data: Optional[bytes] = None
    measurements: Tuple[Measured, ...] = ()

    @property
    def position(self) -> Optional[Tuple[float, float]]:
        """Where the head was, in table coordinates, as a `Measure` in the mode SingleReflectance says; else None."""
        for measured in self.measurements:
            for color in measured.colors:
                if color.space == "Position":
                    return float(color.attributes.get("x", "nan")), float(color.attributes.get("y", "nan"))
        return None


@dataclass(frozen=True)
class Closed:
    """The record of a device is closed; "": all of the connection."""

    path: str


Message = Union[Record, Response, Closed, None]


def message_in(payload: bytes) -> Message:
    """What a frame says; None for what a later version may have to say. ProtocolError when it makes no sense."""
    try:
        content = plistlib.loads(payload, fmt=plistlib.FMT_BINARY)
    except (Exception, RecursionError) as problem:  # of bytes at random the reader raises whatever there is
        raise ProtocolError(f"a frame that is no property list ({type(problem).__name__})") from None
    if not isinstance(content, dict):
        raise ProtocolError("a frame that is no dictionary")
    kind = _item(content, "Type", str)
    if kind == "Status":
        return _record(_item(content, "Record", dict))
    if kind == "Response":
        return _response(content)
    return Closed(_item(content, "DevicePath", str, "")) if kind == "Close" else None


def _item(content: Mapping[str, Any], key: str, kind: Type[T], default: Optional[T] = None) -> T:
    value = content.get(key, default)
    if not isinstance(value, kind):
        raise ProtocolError(f"a frame whose {key} is {'missing' if value is None else type(value).__name__}")
    return value


def _texts(content: Mapping[str, Any], key: str) -> Mapping[str, str]:
    texts = _item(content, key, dict, {})
    if not all(isinstance(text, str) for pair in texts.items() for text in pair):
        raise ProtocolError(f"a frame whose {key} are no texts")
    return MappingProxyType(texts)


def _record(content: Mapping[str, Any]) -> Record:
    modes = _item(content, "Modes", list, [])
    if not all(isinstance(mode, str) for mode in modes):
        raise ProtocolError("a frame whose Modes are no texts")
    name = _item(content, "Name", str)
    if not name:
        raise ProtocolError("a record without a name")
    text = {key: _item(content, key, str, "")
            for key in ("Path", "DisplayName", "SerialNumber", "ServiceVersion", "Mode", "LockHolder")}
    flag = {key: bool(_item(content, key, int, 0))
            for key in ("Enabled", "Available", "Connected", "SoftwareMeasurementAvailable", "Locked", "Proxy")}
    return Record(name, text["Path"], text["DisplayName"], text["SerialNumber"], text["ServiceVersion"],
                  tuple(modes), text["Mode"], _item(content, "CalibrationStatus", int, 0), text["LockHolder"],
                  flag["Enabled"], flag["Available"], flag["Connected"], flag["SoftwareMeasurementAvailable"],
                  flag["Locked"], flag["Proxy"], _texts(content, "Attributes"))


def _response(content: Mapping[str, Any]) -> Response:
    data = content.get("Data")
    if data is not None and not isinstance(data, bytes):
        raise ProtocolError("a response whose Data are none")
    measurements = [(_item(measured, "Mode", str, ""), [_color(color) for color in colors])
                    for measured, colors in _measured_in(content)]
    return Response(_item(content, "Ticket", str, ""), _item(content, "Name", str, ""),
                    _item(content, "Device", str, ""), _item(content, "DevicePath", str, ""),
                    _item(content, "Code", int), _item(content, "Message", str, ""), data,
                    tuple(Measured(mode, tuple(colors)) for mode, colors in measurements))


def _measured_in(content: Mapping[str, Any]) -> List[Tuple[Dict[str, Any], List[Dict[str, Any]]]]:
    """The measurements with their colours, none of whose values has been looked at but counted."""
    found = []
    count = 0
    for measured in _item(content, "MeasurementSet", list, []):
        if not isinstance(measured, dict):
            raise ProtocolError("a measurement that is none")
        colors = _item(measured, "Colors", list, [])
        for color in colors:
            if not isinstance(color, dict):
                raise ProtocolError("a colour that is none")
            count += 1 + len(_item(color, "Values", list, [])) + len(_item(color, "Attributes", dict, {}))
            if count > MOST_VALUES:
                raise ProtocolError("a response with too many values")
        found.append((measured, colors))
    return found


def _color(color: Mapping[str, Any]) -> Color:
    return Color(_item(color, "ColorSpace", str, ""), _numbers(_item(color, "Values", list, [])),
                 _texts(color, "Attributes"))


def _numbers(texts: List[Any]) -> Tuple[float, ...]:
    try:
        numbers = tuple(map(float, texts))
    except (TypeError, ValueError):
        raise ProtocolError("a value that is no number") from None
    if not all(map(math.isfinite, numbers)):
        raise ProtocolError("a value that is no finite number")
    return numbers


def command_table(data: Optional[bytes]) -> Dict[str, Tuple[str, ...]]:
    """What `GetCommands` answers with: the names of each command's arguments."""
    try:
        content = plistlib.loads(data or b"")
        return {str(name): tuple(map(str, arguments)) for name, arguments in content.items()}
    except (Exception, RecursionError):
        raise ProtocolError("a command table that is none") from None


def position_in(message: str) -> Tuple[float, float]:
    """What `GetDevicePosition` answers with: x and y, in table coordinates."""
    try:
        x, y = map(float, message.split(","))
    except ValueError:
        raise ProtocolError(f"a position that is none: {message[:40]!r}") from None
    return x, y
