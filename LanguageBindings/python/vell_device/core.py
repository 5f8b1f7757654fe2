"""The devices and connections of a client, without the connections: both faces of the package work on this.

A `Core` is told what its owner finds in the runtime folder and what arrives, and says what is to be connected and
sent. It never waits, and belongs to one thread: the owner's."""

from __future__ import annotations

import itertools
import logging
import os
from dataclasses import dataclass, field, replace
from typing import Callable, Dict, List, Mapping, NamedTuple, Optional, Tuple, Union

from .discovery import Identity
from .errors import DeviceGone, NoDevice, ProtocolError
from .wire import Closed, FrameReader, Record, Response, command_frame, message_in

log = logging.getLogger("vell_device")

LOOK_EVERY = 0.2  # seconds between two looks into the runtime folder
RENEW_LOCK_EVERY = 10.0  # seconds; the device drops a lock after 30 without a command
FIRST_PAUSE = 0.1  # seconds before a plug-in that hung up is tried again ...
LONGEST_PAUSE = 5.0  # ... when it does so again and again

Outcome = Union[Response, Exception]  # of an exchange


class Event(NamedTuple):
    """What befell a device: `kind` "appeared", "changed" (it posted its record), "gone", or "button" (`response` is
    one of the answers to the commands that a press of its button gives)."""

    kind: str
    record: Record
    response: Optional[Response] = None


@dataclass(eq=False)
class Link:
    """One connection: how to write to it, and what is on its way."""

    socket: str
    write: Callable[[bytes], None]
    reader: FrameReader = field(default_factory=FrameReader)
    records: Dict[str, Record] = field(default_factory=dict)
    pending: Dict[str, Tuple[str, Callable[[Outcome], None]]] = field(default_factory=dict)


@dataclass(eq=False)
class _Socket:
    identity: Identity
    link: Optional[Link] = None
    is_dead: bool = False  # nobody listens, and nobody will before the file changes
    next_try: float = 0.0
    pause: float = FIRST_PAUSE
    complaint: str = ""  # the last one, so that it is not made again and again

    @property
    def is_settled(self) -> bool:
        return self.is_dead or self.pause > FIRST_PAUSE or bool(self.link and self.link.records)


class Core:
    """Times are seconds of a clock that only goes on."""

    def __init__(self, folder: str) -> None:
        self.folder = folder
        self.observers: List[Callable[[Event], None]] = []
        self.has_looked = False
        self._sockets: Dict[str, _Socket] = {}
        self._links: Dict[str, Link] = {}  # by device path
        self._records: Dict[str, Record] = {}  # the last ones, also of devices that are gone
        self._locks: Dict[str, float] = {}  # when each lock is renewed
        self._own = f"python-{os.getpid()}-{os.urandom(4).hex()}-"  # what the tickets of this client begin with
        self._tickets = itertools.count(1)

    # --- Connections

    def look(self, sockets: Mapping[str, Identity], now: float) -> List[str]:
        """Takes what is in the folder; the sockets to connect to."""
        for path in [path for path, known in self._sockets.items() if path not in sockets and not known.link]:
            del self._sockets[path]
        wanted = []
        for path, identity in sockets.items():
            known = self._sockets.setdefault(path, _Socket(identity))
            if known.identity != identity:
                known.identity, known.is_dead, known.next_try, known.pause = identity, False, 0.0, FIRST_PAUSE
            if not known.link and not known.is_dead and known.next_try <= now:
                wanted.append(path)
        self.has_looked = True
        return wanted

    def refused(self, path: str, now: float, error: OSError) -> None:
        """A socket could not be connected to."""
        known = self._sockets.get(path)
        if known:
            known.is_dead = isinstance(error, ConnectionRefusedError) or not error.errno  # too long a path
            known.next_try = now + LOOK_EVERY if isinstance(error, BlockingIOError) else now + LONGEST_PAUSE
            if not isinstance(error, (ConnectionRefusedError, FileNotFoundError, BlockingIOError)):
                self._complain(path, f"cannot be connected to: {error}")

    def opened(self, path: str, write: Callable[[bytes], None]) -> Link:
        """A socket was connected to; `write` takes what is sent there and returns at once."""
        link = Link(path, write)
        self._sockets.setdefault(path, _Socket((0, 0))).link = link
        return link

    def received(self, link: Link, data: bytes, now: float) -> bool:
        """Takes what arrived; False when it makes no sense: then the connection has ended and is to be closed."""
        try:
            for payload in link.reader.feed(data):
                message = message_in(payload)
                if isinstance(message, Record):
                    self._publish(link, message)
                elif isinstance(message, Response):
                    self._answer(link, message)
                elif isinstance(message, Closed):
                    for path in [path for path in link.records if message.path in ("", path)]:
                        self._withdraw(link, path, DeviceGone())
        except ProtocolError as problem:
            self._complain(link.socket, f"its plug-in sent what makes no sense: {problem}")
            self.ended(link, now, DeviceGone(f"its plug-in sent what makes no sense: {problem}"))
            return False
        return True

    def ended(self, link: Link, now: float, reason: Optional[DeviceGone] = None) -> None:
        """The connection is no more; whoever waits for an answer gets the reason."""
        known = self._sockets.get(link.socket)
        if known and known.link is link:
            known.link = None
            known.next_try = now + known.pause
            known.pause = min(known.pause * 2, LONGEST_PAUSE)
        reason = reason or DeviceGone()
        for path in list(link.records):
            self._withdraw(link, path, reason)
        for _, deliver in list(link.pending.values()):
            deliver(reason)
        link.pending.clear()

    def _complain(self, socket: str, text: str) -> None:
        known = self._sockets.get(socket)
        if known and known.complaint != text:
            known.complaint = text
            log.warning("%s: %s", socket, text)

    def _publish(self, link: Link, record: Record) -> None:
        if self._links.get(record.path, link) is not link:
            return  # another plug-in has the device of this path
        is_new = record.path not in link.records
        link.records[record.path] = self._records[record.path] = record
        self._links[record.path] = link
        known = self._sockets.get(link.socket)
        if known:
            known.pause = FIRST_PAUSE  # it is well
        if is_new and record.path in self._locks:
            self._locks[record.path] = 0.0
        self._tell(Event("appeared" if is_new else "changed", record))

    def _withdraw(self, link: Link, path: str, reason: DeviceGone) -> None:
        record = link.records.pop(path)
        for ticket, (device, deliver) in list(link.pending.items()):
            if device == path:
                del link.pending[ticket]
                deliver(reason)
        if self._links.get(path) is link:
            del self._links[path]
            self._records[path] = replace(record, available=False, connected=False)
            self._tell(Event("gone", self._records[path]))

    def _answer(self, link: Link, response: Response) -> None:
        waiting = link.pending.get(response.ticket)
        if waiting:
            waiting[1](response)
        elif response.name == "BeginCalibrate" or response.ticket.startswith(self._own):
            pass  # whoever calibrates; an answer that nobody waits for any more
        elif response.device_path in link.records:  # to the plug-in's own command
            self._tell(Event("button", link.records[response.device_path], response))

    def _tell(self, event: Event) -> None:
        for observer in tuple(self.observers):
            observer(event)

    # --- Devices

    @property
    def is_settled(self) -> bool:
        """Whether every plug-in that listens has shown its table, or will not."""
        return self.has_looked and all(known.is_settled for known in self._sockets.values())

    def is_there(self, path: str) -> bool:
        return path in self._links

    def record(self, path: str) -> Record:
        """The record that a device published last."""
        return self._records[path]

    def devices(self, wanted: Optional[str] = None) -> List[Record]:
        """The devices that are there, or those that a path, name or serial number means; by path."""
        records = [self._records[path] for path in sorted(tuple(self._links))]
        return [record for record in records if wanted is None or wanted in (
            record.path, record.name, record.display_name, record.serial_number)]

    def found(self, wanted: Optional[str]) -> bool:
        """Whether `choose` has all there is to know."""
        return bool(self.devices(wanted)) and (self.is_settled or self.is_there(wanted or ""))

    def choose(self, wanted: Optional[str]) -> str:
        """The path of the device that is meant, which need not be named when it is the only one. Or NoDevice."""
        devices = self.devices(wanted)
        there = ", ".join(record.path for record in self.devices()) or "none"
        if not devices:
            raise NoDevice(f"no device {wanted} in {self.folder}: there is {there}" if wanted is not None else
                           f"no device in {self.folder}" + (": the plug-in there has not connected its table yet"
                                                            if any(s.link for s in self._sockets.values()) else ""))
        if len(devices) > 1:
            raise NoDevice(f"more than one device in {self.folder}, name one of them: {there}")
        return devices[0].path

    # --- Commands

    def send(self, path: str, name: str, arguments: Mapping[str, object], data: Optional[bytes],
             deliver: Callable[[Outcome], None]) -> Callable[[], None]:
        """Sends a command to a device. `deliver` gets its responses, and why there will be no more when the device
        goes; what is returned ends that. ValueError for a command that is too large."""
        link = self._links.get(path)
        if not link:
            deliver(DeviceGone("the device is not there", name))
            return lambda: None
        ticket = self._own + str(next(self._tickets))
        data_of_frame = command_frame(ticket, name, arguments, data, self._records[path].name, path)
        link.pending[ticket] = (path, deliver)
        link.write(data_of_frame)
        pending = link.pending

        def forget() -> None:
            pending.pop(ticket, None)

        return forget

    def hold(self, path: str, now: float) -> None:
        """Renews the device lock from now on."""
        self._locks[path] = now + RENEW_LOCK_EVERY

    def release(self, path: str) -> None:
        """Renews it no more."""
        self._locks.pop(path, None)

    @property
    def held(self) -> List[str]:
        """The devices whose locks are renewed."""
        return list(self._locks)

    def renew(self, now: float) -> None:
        """Renews the locks whose time has come."""
        for path, due in list(self._locks.items()):
            if due <= now and path in self._links:
                self.hold(path, now)
                self.send(path, "Lock", {}, None, lambda outcome: None)()


class Described:
    """What a device says of itself, in both faces."""

    path: str
    _core: Core

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self.path}>"

    @property
    def record(self) -> Record:
        """The record that the device published last."""
        return self._core.record(self.path)

    @property
    def attributes(self) -> Mapping[str, str]:
        """The attributes of the record."""
        return self.record.attributes

    @property
    def is_there(self) -> bool:
        """Whether the table can be spoken to now."""
        return self._core.is_there(self.path)
