"""The tables of a runtime folder, for programs with threads. vell_device.aio is the same for asyncio.

A `Service` reads and writes on a thread of its own; its methods and those of its tables may be called from any. What
is called back runs on another thread, one call after the other, and may use them, too."""

from __future__ import annotations

import contextlib
import functools
import os
import queue
import selectors
import socket
import threading
import time
import weakref
from typing import Callable, Dict, Generator, Iterator, List, Mapping, Optional, Sequence, Tuple, TypeVar, Union

from .charts import Layout, Row
from .core import LOOK_EVERY, Core, Described, Event, Link, Outcome, log
from .discovery import connect, log_folder, runtime_folder, sockets_in
from .errors import DeviceGone, Error, Timeout
from .procedures import BUSY_PATIENCE, Closing, Procedure, Receive, Scan, ScanRequest, Send, SpotLog, Step, call
from .progress import Reporter, Shown
from .wire import Record, Response, command_table, position_in

T = TypeVar("T")

DISCOVERY = 5.0  # seconds
UNLOCKING = 5.0  # seconds
CALLBACKS = 5.0  # seconds for those that are under way when a service is closed


class _Connection:
    """A socket, what waits to be written to it, and what the core knows of it."""

    def __init__(self, connected: socket.socket) -> None:
        self.socket = connected
        self.unsent = bytearray()
        self.link: Optional[Link] = None


class Exchange:
    """A command that was sent, and its responses: iterate over them, or call `next`. Any thread; a context manager."""

    def __init__(self, name: str, forget: Callable[[], None]) -> None:
        self.name = name
        self._outcomes: queue.SimpleQueue[Outcome] = queue.SimpleQueue()
        self._forget = forget

    def next(self, timeout: Optional[float] = None) -> Response:
        """The next response, whatever its code. Timeout after so many seconds; DeviceGone when no more can come."""
        try:
            outcome = self._outcomes.get(timeout=timeout)
        except queue.Empty:
            raise Timeout(f"{self.name}: no answer within {timeout:g} s") from None
        if isinstance(outcome, Response):
            return outcome
        self._outcomes.put(outcome)
        raise DeviceGone(outcome.text, self.name) if isinstance(outcome, DeviceGone) else outcome

    def close(self) -> None:
        """Waits for no more."""
        self._forget()

    def __iter__(self) -> Iterator[Response]:
        while True:
            yield self.next()

    def __enter__(self) -> Exchange:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Service:
    """The tables whose plug-ins listen in a runtime folder (by default $VELL_RUNTIME_DIR, $XDG_RUNTIME_DIR/vell or
    /tmp/vell-<uid>), as they come and go. A context manager; `close` gives locks back and ends scans."""

    def __init__(self, runtime_dir: Optional[str] = None) -> None:
        self.runtime_dir = os.path.abspath(runtime_dir or runtime_folder())
        self._core = Core(self.runtime_dir)
        self._tables: Dict[str, Table] = {}
        self._changed = threading.Condition()
        self._gate = threading.Lock()  # guards _is_closed, and that nothing is posted after that
        self._is_closed = False
        self._posted: queue.SimpleQueue[Callable[[], None]] = queue.SimpleQueue()
        self._callbacks: queue.SimpleQueue[Optional[Callable[[], None]]] = queue.SimpleQueue()
        self._caller: Optional[threading.Thread] = None
        self._problem = ""
        self._wakes, self._wake = socket.socketpair()
        self._wakes.setblocking(False)
        self._wake.setblocking(False)
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._wakes, selectors.EVENT_READ)
        self._thread = threading.Thread(target=self._run, name="vell_device", daemon=True)
        self._thread.start()

    # --- The devices

    def tables(self, timeout: float = DISCOVERY) -> List[Table]:
        """The tables that are there, by path, once every plug-in has shown its own or so many seconds have passed."""
        self._wait(lambda: self._core.is_settled, timeout)
        return [self._table(record.path) for record in self._core.devices()]

    def table(self, which: Optional[str] = None, timeout: float = DISCOVERY) -> Table:
        """The table of that path, name or serial number; without one, the only table that there is. NoDevice when there
        is none within so many seconds, or when there are several."""
        self._wait(lambda: self._core.found(which), timeout)
        return self._table(self._core.choose(which))

    def on_device(self, callback: Callable[[str, Table], None]) -> Callable[[], None]:
        """Calls back with "appeared" or "gone" and the table, for the tables that are there at first; call what is
        returned to end that."""
        def observe(event: Event) -> None:
            if event.kind in ("appeared", "gone"):
                self._call_back(lambda: callback(event.kind, self._table(event.record.path)))

        def begin() -> None:
            for record in self._core.devices():
                observe(Event("appeared", record))
            self._core.observers.append(observe)

        self._post(begin)
        return lambda: self._end_observing(observe)

    def close(self) -> None:
        """Ends scans, gives locks back, and closes the connections. Nothing of this service can be used then."""
        for table in list(self._tables.values()):
            table._end_scans()
            if table.path in self._core.held:
                with contextlib.suppress(Error):
                    table.unlock(timeout=UNLOCKING)
        with self._gate:
            already, self._is_closed = self._is_closed, True
            if not already:
                self._wake_up()
        if not already:
            self._thread.join()
            self._callbacks.put(None)
            if self._caller and self._caller is not threading.current_thread():
                self._caller.join(CALLBACKS)

    def __enter__(self) -> Service:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _table(self, path: str) -> Table:
        return self._tables.setdefault(path, Table(self, path))

    def _wait(self, condition: Callable[[], bool], seconds: float) -> None:
        with self._changed:
            self._changed.wait_for(condition, seconds)
        if self._problem:
            raise Error(self._problem)

    # --- Between the threads

    def _post(self, work: Callable[[], None]) -> None:
        """Has the service's thread do something. Error when the service is closed."""
        with self._gate:
            if self._is_closed:
                raise Error("the service is closed")
            self._posted.put(work)
            self._wake_up()

    def _wake_up(self) -> None:
        """Under the gate, before which the thread does not close what it is woken by."""
        with contextlib.suppress(BlockingIOError):  # it is being woken
            self._wake.send(b"\0")

    def _call_back(self, call: Callable[[], None]) -> None:
        if self._is_closed:
            return  # that the devices go with their connections is no news to whoever closed them
        if not self._caller:
            self._caller = threading.Thread(target=self._run_callbacks, name="vell_device callbacks", daemon=True)
            self._caller.start()
        self._callbacks.put(call)

    def _run_callbacks(self) -> None:
        while True:
            call = self._callbacks.get()
            if call is None:
                return
            try:
                call()
            except Exception:
                log.exception("a callback failed")

    def _observe(self, observer: Callable[[Event], None]) -> Callable[[], None]:
        self._post(lambda: self._core.observers.append(observer))
        return lambda: self._end_observing(observer)

    def _end_observing(self, observer: Callable[[Event], None]) -> None:
        def end() -> None:
            if observer in self._core.observers:
                self._core.observers.remove(observer)

        with contextlib.suppress(Error):
            self._post(end)

    def _send(self, path: str, command: Send) -> Exchange:
        sent: List[Callable[[], None]] = []

        def send() -> None:
            try:
                sent.append(self._core.send(path, command.name, command.arguments, command.data,
                                            exchange._outcomes.put))
            except Exception as problem:  # what cannot be sent is the sender's affair
                exchange._outcomes.put(problem)

        def end() -> None:
            for forget in sent:
                forget()

        def forget_it() -> None:
            with contextlib.suppress(Error):
                self._post(end)

        exchange = Exchange(command.name, forget_it)
        self._post(send)
        return exchange

    # --- The service's thread

    def _run(self) -> None:
        next_look = 0.0
        try:
            while not self._is_closed:
                now = time.monotonic()
                if now >= next_look:
                    next_look = now + LOOK_EVERY
                    self._look(now)
                    self._core.renew(now)
                for key, events in self._selector.select(max(0.0, next_look - time.monotonic())):
                    if key.data:
                        self._serve(key.data, events)
                    else:
                        self._wakes.recv(4096)
                self._do_posted()
                with self._changed:
                    self._changed.notify_all()
        finally:  # nobody waits for ever, even if the above is at fault
            with self._gate:
                self._is_closed = True
            for key in list(self._selector.get_map().values()):
                if key.data:
                    self._end(key.data)
            self._do_posted()
            self._selector.close()
            self._wakes.close()
            self._wake.close()

    def _do_posted(self) -> None:
        with contextlib.suppress(queue.Empty):
            while True:
                self._posted.get_nowait()()

    def _look(self, now: float) -> None:
        try:
            sockets = sockets_in(self.runtime_dir)
            self._problem = ""
        except OSError as problem:
            self._problem = str(problem)
            return
        for path in self._core.look(sockets, now):
            try:
                connection = _Connection(connect(path))
            except OSError as problem:
                self._core.refused(path, now, problem)
                continue
            self._selector.register(connection.socket, selectors.EVENT_READ, connection)
            connection.link = self._core.opened(path, functools.partial(self._write, connection))

    def _write(self, connection: _Connection, data: bytes) -> None:
        connection.unsent += data
        self._flush(connection)

    def _flush(self, connection: _Connection) -> None:
        with contextlib.suppress(OSError):  # a connection that has ended is found out by reading
            while connection.unsent:
                del connection.unsent[: connection.socket.send(connection.unsent)]
        events = selectors.EVENT_READ | (selectors.EVENT_WRITE if connection.unsent else 0)
        with contextlib.suppress(KeyError):
            self._selector.modify(connection.socket, events, connection)

    def _serve(self, connection: _Connection, events: int) -> None:
        if events & selectors.EVENT_WRITE:
            self._flush(connection)
        if events & selectors.EVENT_READ:
            try:
                data = connection.socket.recv(1 << 16)
            except BlockingIOError:
                return
            except OSError:
                data = b""
            assert connection.link
            if not data or not self._core.received(connection.link, data, time.monotonic()):
                self._end(connection)

    def _end(self, connection: _Connection) -> None:
        self._selector.unregister(connection.socket)
        connection.socket.close()
        if connection.link:
            self._core.ended(connection.link, time.monotonic())


class Lock:
    """The device lock, held and renewed until `release`, or the end of the block that it is the context manager of."""

    def __init__(self, table: Table) -> None:
        self._table = table

    def release(self) -> None:
        """Gives the lock back, once all that this process took are. Scans that are under way are ended."""
        self._table._release_lock(self)

    def __enter__(self) -> Table:
        return self._table

    def __exit__(self, *_: object) -> None:
        self.release()


class Table(Described):
    """One scanning table. `docs/commands.md` says more of the commands; each is a method here.

    Methods raise DeviceError with the device's code and text when it refuses (Busy when it still measures or
    calibrates after it was asked again for 5 seconds, Locked when another client holds its lock), DeviceGone when the
    table is not there or goes meanwhile, and Timeout after `timeout` seconds. None, the default, means as long as the
    device takes. Positions are table coordinates, of the aperture in the mode ScanningReflectance and of the visor in
    SingleReflectance."""

    def __init__(self, service: Service, path: str) -> None:
        self.service = service
        self.path = path
        self._core = service._core
        self._locks: List[Lock] = []
        self._scans: weakref.WeakSet[Generator[Row, None, None]] = weakref.WeakSet()

    # --- What it says of itself

    def wait_for(self, condition: Callable[[Record], bool], timeout: Optional[float] = None) -> Record:
        """The first record that meets the condition: the one that is known, or one that is posted from now on."""
        records: queue.SimpleQueue[Event] = queue.SimpleQueue()
        deadline = None if timeout is None else time.monotonic() + timeout

        def observe(event: Event) -> None:
            if event.record.path == self.path:
                records.put(event)

        def begin() -> None:
            self._core.observers.append(observe)
            observe(Event("changed" if self.is_there else "gone", self.record))

        self.service._post(begin)
        try:
            while True:
                event = records.get(timeout=None if deadline is None else max(0.0, deadline - time.monotonic()))
                if event.kind == "gone":
                    raise DeviceGone()
                if event.kind != "button" and condition(event.record):
                    return event.record
        except queue.Empty:
            raise Timeout(f"{self.path}: no such record within {timeout:g} s") from None
        finally:
            self.service._end_observing(observe)

    def on_status(self, callback: Callable[[Record], None]) -> Callable[[], None]:
        """Calls back with every record that the device posts; call what is returned to end that."""
        def observe(event: Event) -> None:
            if event.record.path == self.path and event.kind in ("appeared", "changed"):
                self.service._call_back(lambda: callback(event.record))

        return self.service._observe(observe)

    def on_button(self, callback: Callable[[Response], None]) -> Callable[[], None]:
        """Calls back with every response that a press of the button brings: `BeginMeasure` and those of `Measure`, or
        that of `Calibrate`; call what is returned to end that."""
        def observe(event: Event) -> None:
            if event.record.path == self.path and event.response:
                self.service._call_back(functools.partial(callback, event.response))

        return self.service._observe(observe)

    # --- Commands by name

    def send(self, name: str, arguments: Optional[Mapping[str, object]] = None, *, data: Optional[bytes] = None,
             timeout: Optional[float] = None, patience: float = BUSY_PATIENCE) -> Response:
        """Sends any command; its first response. A busy device is asked again for `patience` seconds."""
        return self._carry_out(call(Send(name, arguments or {}, data), lambda: self.record, timeout, patience))

    def exchange(self, name: str, arguments: Optional[Mapping[str, object]] = None, *,
                 data: Optional[bytes] = None) -> Exchange:
        """Sends any command, once; its responses, whatever their codes, as they come."""
        return self.service._send(self.path, Send(name, arguments or {}, data))

    # --- Commands every device takes

    def get_commands(self, timeout: Optional[float] = None) -> Dict[str, Tuple[str, ...]]:
        """The names of the arguments of each command."""
        return command_table(self.send("GetCommands", timeout=timeout).data)

    def status(self, timeout: Optional[float] = None) -> Record:
        """Has the device post its record; the record."""
        known: List[Record] = []

        def is_posted(record: Record) -> bool:
            if not known:
                known.append(record)
                self.exchange("Status").close()
                return False
            return True

        return self.wait_for(is_posted, timeout)

    def poll(self, timeout: Optional[float] = None) -> Record:
        """The same by its other name."""
        return self.status(timeout)

    def lock(self, timeout: Optional[float] = None) -> Lock:
        """Takes the device lock, which keeps other processes out, and renews it: `with table.lock(): ...`."""
        self.send("Lock", timeout=timeout)
        held = Lock(self)
        self._locks.append(held)
        self.service._post(lambda: self._core.hold(self.path, time.monotonic()))
        return held

    def unlock(self, timeout: Optional[float] = None) -> None:
        """Gives the device lock back, however often it was taken."""
        self._locks.clear()
        self.service._post(lambda: self._core.release(self.path))
        self.send("Unlock", timeout=timeout)

    def set_mode(self, mode: str, timeout: Optional[float] = None) -> None:
        """Sets the measurement mode, one of `record.modes`."""
        self.send("SetMode", {"Mode": mode}, timeout=timeout)

    def calibrate(self, timeout: Optional[float] = None) -> None:
        """Sends the head home and calibrates on the white tile."""
        self.send("Calibrate", timeout=timeout)

    def clear_calibration(self, timeout: Optional[float] = None) -> None:
        """Makes the device uncalibrated."""
        self.send("ClearCalibration", timeout=timeout)

    def set_attribute(self, key: str, value: object, timeout: Optional[float] = None) -> None:
        """Writes an option of the instrument; True and False are "yes" and "no"."""
        self.send("SetAttribute", {"key": key, "value": value}, timeout=timeout)

    def enable(self, timeout: Optional[float] = None) -> None:
        """Does nothing."""
        self.send("Enable", timeout=timeout)

    def disable(self, timeout: Optional[float] = None) -> None:
        """Does nothing."""
        self.send("Disable", timeout=timeout)

    def quit(self, timeout: Optional[float] = None) -> None:
        """Does nothing."""
        self.send("Quit", timeout=timeout)

    def die_a_quick_death(self, timeout: Optional[float] = None) -> None:
        """Ends the plug-in, and returns when it is gone. It is not started again before its table is attached again."""
        try:
            self.exchange("DieAQuickDeath").next(timeout)
        except DeviceGone:
            pass

    # --- Commands of the table

    def set_device_position(self, x: float, y: float, timeout: Optional[float] = None) -> None:
        """Moves the head; returns when it is there."""
        self.send("SetDevicePosition", {"x": x, "y": y}, timeout=timeout)

    def get_device_position(self, timeout: Optional[float] = None) -> Tuple[float, float]:
        """Where the head is: x and y."""
        return position_in(self.send("GetDevicePosition", timeout=timeout).message)

    def go_home(self, timeout: Optional[float] = None) -> None:
        """Sends the head home."""
        self.send("GoHome", timeout=timeout)

    def cancel_measure(self, timeout: Optional[float] = None) -> None:
        """Ends a measurement, whoever's it is, and sends the head home; returns at once."""
        self.send("CancelMeasure", timeout=timeout)

    def measure_cancel(self, timeout: Optional[float] = None) -> None:
        """The same by its other name."""
        self.send("MeasureCancel", timeout=timeout)

    def reset(self, timeout: Optional[float] = None) -> None:
        """Ends whatever runs and sends the head home, which takes 5 seconds while a measurement runs."""
        self.send("__RESET__", timeout=timeout)

    def measure(self, arguments: Optional[Mapping[str, object]] = None, timeout: Optional[float] = None) -> Response:
        """`Measure` as it is; the first response. In the mode SingleReflectance its `position` is where the head is;
        `scan` measures charts."""
        return self.send("Measure", arguments, timeout=timeout)

    def scan(self, layout: Layout, *, rows: Optional[Sequence[int]] = None, spots: int = 0,
             low_resolution: bool = False, progress: Shown = False, timeout: Optional[float] = None) -> Generator[Row, None, None]:
        """Measures a chart; its rows as they come. Sets the mode, and calibrates when the device is not calibrated.

        `rows` (from 0) measures only these; `spots` reads each patch so often (at most 5) instead of in strips;
        `low_resolution` asks for clearer edges between patches; `progress` shows how far it is on standard error, or
        calls back with a `Progress`; `timeout` is for each row. ValueError for rows that the chart does not have.

        Whatever ends it early (an error, KeyboardInterrupt, closing the generator, the end of the lock's block) cancels
        the measurement and sends the head home. Leave a loop over it with the loop's last row, or close it."""
        request = ScanRequest(layout, rows, spots, low_resolution, timeout)
        generator = self._rows(request, Reporter(progress, layout, range(layout.rows) if rows is None else rows))
        self._scans.add(generator)
        return generator

    # --- How it is done

    def _rows(self, request: ScanRequest, reporter: Reporter) -> Generator[Row, None, None]:
        spot_log = SpotLog(log_folder(self.service.runtime_dir), self.attributes.get("DeviceLogName", ""))
        procedure = Scan(request, lambda: self.record, spot_log).run()
        exchanges: List[Exchange] = []
        with _closing_all(exchanges), contextlib.closing(spot_log):
            try:
                step = next(procedure)
                while True:
                    try:
                        result = None
                        if isinstance(step, Row):
                            reporter.row(step)
                            yield step
                        else:
                            result = self._perform(step, exchanges)
                    except GeneratorExit:
                        step = procedure.throw(Closing())
                    except BaseException as problem:
                        step = procedure.throw(problem)
                    else:
                        step = procedure.send(result)
            except (StopIteration, Closing):
                return

    def _carry_out(self, procedure: Procedure[T]) -> T:
        exchanges: List[Exchange] = []
        with _closing_all(exchanges):
            try:
                step = next(procedure)
                while True:
                    try:
                        result = self._perform(step, exchanges)
                    except BaseException as problem:
                        step = procedure.throw(problem)
                    else:
                        step = procedure.send(result)
            except StopIteration as end:
                value: T = end.value
                return value

    def _perform(self, step: Step, exchanges: List[Exchange]) -> Union[Exchange, Response, None]:
        if isinstance(step, Send):
            exchanges.append(self.service._send(self.path, step))
            return exchanges[-1]
        if isinstance(step, Receive):
            response: Response = step.exchange.next(step.seconds)
            return response
        time.sleep(step.seconds)
        return None

    def _end_scans(self) -> None:
        for generator in list(self._scans):
            with contextlib.suppress(ValueError, Error):  # it runs in another thread
                generator.close()

    def _release_lock(self, lock: Lock) -> None:
        if lock not in self._locks:
            return  # given back before
        if len(self._locks) > 1:
            self._locks.remove(lock)
            return
        self._end_scans()
        with contextlib.suppress(Error):  # the device is gone or does not answer: the lock ends by itself
            self.unlock(UNLOCKING)


@contextlib.contextmanager
def _closing_all(exchanges: List[Exchange]) -> Iterator[None]:
    try:
        yield
    finally:
        for exchange in exchanges:
            exchange.close()

