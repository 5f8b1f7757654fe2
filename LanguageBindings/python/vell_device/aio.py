"""The tables of a runtime folder, for asyncio.

    async with aio.Service() as service:
        table = await service.table()
        async with table.lock():
            async for row in table.scan(layout):
                ...

Names, arguments and exceptions are those of vell_device's `Service` and `Table`, which say more; what waits
there is awaited here. All of it belongs to the event loop that the service was entered in, callbacks included."""

from __future__ import annotations

import asyncio
import contextlib
import os
import time
import weakref
from typing import (Any, AsyncGenerator, AsyncIterator, Callable, Dict, Generator, List, Mapping, Optional, Sequence,
                    Set, Tuple, TypeVar, Union)

from .charts import Layout, Row
from .core import LOOK_EVERY, Core, Described, Event, Link, Outcome, log
from .discovery import connect, log_folder, runtime_folder, sockets_in
from .errors import DeviceGone, Error, Timeout
from .procedures import (BUSY_PATIENCE, CANCELLATION, Closing, Procedure, Receive, Scan, ScanRequest, Send, SpotLog,
                         Step, call)
from .progress import Reporter, Shown
from .service import DISCOVERY, UNLOCKING
from .simulation import PATH, START, PrivateService, Simulation, check_chart
from .wire import Record, Response, command_table, position_in

T = TypeVar("T")


class _Connection(asyncio.Protocol):
    """A socket, for the core."""

    def __init__(self, service: Service, path: str) -> None:
        self._service = service
        self._path = path
        self._link: Optional[Link] = None
        self._transport: Optional[asyncio.Transport] = None

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self._transport = transport
        self._link = self._service._core.opened(self._path, transport.write)
        self._service._connections.add(self)

    def data_received(self, data: bytes) -> None:
        if self._link and not self._service._core.received(self._link, data, time.monotonic()):
            self.close()
        self._service._change()

    def connection_lost(self, exc: Optional[Exception]) -> None:
        self._service._connections.discard(self)
        if self._link:
            self._service._core.ended(self._link, time.monotonic())
        self._service._change()

    def close(self) -> None:
        if self._transport:
            self._transport.abort()


class Exchange:
    """A command that was sent, and its responses: iterate over them, or call `next`."""

    def __init__(self, name: str) -> None:
        self.name = name
        self._outcomes: asyncio.Queue[Outcome] = asyncio.Queue()
        self._forget: Callable[[], None] = lambda: None

    async def next(self, timeout: Optional[float] = None) -> Response:
        """The next response, whatever its code."""
        try:
            outcome = await asyncio.wait_for(self._outcomes.get(), timeout)
        except asyncio.TimeoutError:
            raise Timeout(f"{self.name}: no answer within {timeout:g} s") from None
        if isinstance(outcome, Response):
            return outcome
        self._outcomes.put_nowait(outcome)
        raise DeviceGone(outcome.text, self.name) if isinstance(outcome, DeviceGone) else outcome

    def close(self) -> None:
        """Waits for no more."""
        self._forget()

    async def __aiter__(self) -> AsyncIterator[Response]:
        while True:
            yield await self.next()

    def __enter__(self) -> Exchange:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Service:
    """The tables whose plug-ins listen in a runtime folder, as they come and go. An asynchronous context manager."""

    def __init__(self, runtime_dir: Optional[str] = None) -> None:
        self.runtime_dir = os.path.abspath(runtime_dir or runtime_folder())
        self._core = Core(self.runtime_dir)
        self._tables: Dict[str, Table] = {}
        self._connections: Set[_Connection] = set()
        self._waiting: List[asyncio.Future[None]] = []
        self._problem = ""
        self._watching: Optional[asyncio.Task[None]] = None
        self._is_closed = False

    async def __aenter__(self) -> Service:
        self._watching = asyncio.get_running_loop().create_task(self._watch())
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    async def close(self) -> None:
        """Ends scans, gives locks back, and closes the connections."""
        try:
            for table in list(self._tables.values()):
                await table._end_scans()
                if table.path in self._core.held:
                    with contextlib.suppress(Error):
                        await table.unlock(timeout=UNLOCKING)
        finally:
            self._is_closed = True
            if self._watching:
                self._watching.cancel()
                with contextlib.suppress(asyncio.CancelledError):
                    await self._watching
            for connection in list(self._connections):
                connection.close()
            await asyncio.sleep(0)  # in which they end

    async def tables(self, timeout: float = DISCOVERY) -> List[Table]:
        """The tables that are there, by path."""
        await self._wait(lambda: self._core.is_settled, timeout)
        return [self._table(record.path) for record in self._core.devices()]

    async def table(self, which: Optional[str] = None, timeout: float = DISCOVERY) -> Table:
        """The table of that path, name or serial number; without one, the only table that there is."""
        await self._wait(lambda: self._core.found(which), timeout)
        return self._table(self._core.choose(which))

    def on_device(self, callback: Callable[[str, Table], None]) -> Callable[[], None]:
        """Calls back with "appeared" or "gone" and the table; call what is returned to end that."""
        def observe(event: Event) -> None:
            if event.kind in ("appeared", "gone"):
                self._call_back(callback, event.kind, self._table(event.record.path))

        for record in self._core.devices():
            observe(Event("appeared", record))
        return self._observe(observe)

    def _table(self, path: str) -> Table:
        return self._tables.setdefault(path, Table(self, path))

    def _observe(self, observer: Callable[[Event], None]) -> Callable[[], None]:
        self._core.observers.append(observer)

        def end() -> None:
            if observer in self._core.observers:
                self._core.observers.remove(observer)

        return end

    def _call_back(self, callback: Callable[..., None], *arguments: object) -> None:
        if self._is_closed:
            return  # that the devices go with their connections is no news to whoever closed them
        try:
            callback(*arguments)
        except Exception:
            log.exception("a callback failed")

    async def _watch(self) -> None:
        while True:
            now = time.monotonic()
            try:
                wanted = self._core.look(sockets_in(self.runtime_dir), now)
                self._problem = ""
            except OSError as problem:
                wanted, self._problem = [], str(problem)
            for path in wanted:
                try:
                    connected = connect(path)
                except OSError as refusal:
                    self._core.refused(path, now, refusal)
                else:
                    connection = _Connection(self, path)
                    await asyncio.get_running_loop().create_unix_connection(lambda: connection, sock=connected)
            self._core.renew(now)
            self._change()
            await asyncio.sleep(LOOK_EVERY)

    def _change(self) -> None:
        waiting, self._waiting = self._waiting, []
        for waiter in waiting:
            if not waiter.done():
                waiter.set_result(None)

    async def _wait(self, condition: Callable[[], bool], seconds: float) -> None:
        if not self._watching:
            raise Error("the service has not been entered: async with Service() as service")
        end = time.monotonic() + seconds
        while not condition() and time.monotonic() < end:
            waiter = asyncio.get_running_loop().create_future()
            self._waiting.append(waiter)
            await asyncio.wait([waiter], timeout=max(0.0, end - time.monotonic()))
        if self._problem:
            raise Error(self._problem)

    def _send(self, path: str, command: Send) -> Exchange:
        exchange = Exchange(command.name)
        exchange._forget = self._core.send(path, command.name, command.arguments, command.data,
                                           exchange._outcomes.put_nowait)
        return exchange


class Lock:
    """The device lock: `async with table.lock(): ...`, or `held = await table.lock()` and `await held.release()`."""

    def __init__(self, table: Table, timeout: Optional[float]) -> None:
        self._table = table
        self._timeout = timeout

    async def _take(self) -> Lock:
        await self._table.send("Lock", timeout=self._timeout)
        self._table._locks.append(self)
        self._table._core.hold(self._table.path, time.monotonic())
        return self

    def __await__(self) -> Generator[Any, None, Lock]:
        return self._take().__await__()

    async def release(self) -> None:
        """Gives the lock back, once all that this process took are. Scans that are under way are ended."""
        await self._table._release_lock(self)

    async def __aenter__(self) -> Table:
        await self._take()
        return self._table

    async def __aexit__(self, *_: object) -> None:
        await self.release()


class Table(Described):
    """One scanning table; vell_device.Table says what its methods do."""

    def __init__(self, service: Service, path: str) -> None:
        self.service = service
        self.path = path
        self._core = service._core
        self._locks: List[Lock] = []
        self._scans: weakref.WeakSet[AsyncGenerator[Row, None]] = weakref.WeakSet()
        self._running: Set[asyncio.Event] = set()  # scans, until each has ended

    # --- What it says of itself

    async def wait_for(self, condition: Callable[[Record], bool], timeout: Optional[float] = None) -> Record:
        """The first record that meets the condition: the one that is known, or one that is posted from now on."""
        events: asyncio.Queue[Event] = asyncio.Queue()

        def observe(event: Event) -> None:
            if event.record.path == self.path:
                events.put_nowait(event)

        async def wait() -> Record:
            while True:
                event = await events.get()
                if event.kind == "gone":
                    raise DeviceGone()
                if event.kind != "button" and condition(event.record):
                    return event.record

        end = self.service._observe(observe)
        observe(Event("changed" if self.is_there else "gone", self.record))
        try:
            return await asyncio.wait_for(wait(), timeout)
        except asyncio.TimeoutError:
            raise Timeout(f"{self.path}: no such record within {timeout:g} s") from None
        finally:
            end()

    def on_status(self, callback: Callable[[Record], None]) -> Callable[[], None]:
        """Calls back with every record that the device posts; call what is returned to end that."""
        def observe(event: Event) -> None:
            if event.record.path == self.path and event.kind in ("appeared", "changed"):
                self.service._call_back(callback, event.record)

        return self.service._observe(observe)

    def on_button(self, callback: Callable[[Response], None]) -> Callable[[], None]:
        """Calls back with every response that a press of the button brings; call what is returned to end that."""
        def observe(event: Event) -> None:
            if event.record.path == self.path and event.response:
                self.service._call_back(callback, event.response)

        return self.service._observe(observe)

    # --- Commands

    async def send(self, name: str, arguments: Optional[Mapping[str, object]] = None, *, data: Optional[bytes] = None,
                   timeout: Optional[float] = None, patience: float = BUSY_PATIENCE) -> Response:
        """Sends any command; its first response. A busy device is asked again for `patience` seconds."""
        return await self._carry_out(call(Send(name, arguments or {}, data), lambda: self.record, timeout, patience))

    def exchange(self, name: str, arguments: Optional[Mapping[str, object]] = None, *,
                 data: Optional[bytes] = None) -> Exchange:
        """Sends any command, once; its responses, whatever their codes, as they come."""
        return self.service._send(self.path, Send(name, arguments or {}, data))

    async def get_commands(self, timeout: Optional[float] = None) -> Dict[str, Tuple[str, ...]]:
        return command_table((await self.send("GetCommands", timeout=timeout)).data)

    async def status(self, timeout: Optional[float] = None) -> Record:
        known: List[Record] = []

        def is_posted(record: Record) -> bool:
            if not known:
                known.append(record)
                self.exchange("Status").close()
                return False
            return True

        return await self.wait_for(is_posted, timeout)

    async def poll(self, timeout: Optional[float] = None) -> Record:
        return await self.status(timeout)

    def lock(self, timeout: Optional[float] = None) -> Lock:
        return Lock(self, timeout)

    async def unlock(self, timeout: Optional[float] = None) -> None:
        self._locks.clear()
        self._core.release(self.path)
        await self.send("Unlock", timeout=timeout)

    async def set_mode(self, mode: str, timeout: Optional[float] = None) -> None:
        await self.send("SetMode", {"Mode": mode}, timeout=timeout)

    async def calibrate(self, timeout: Optional[float] = None) -> None:
        await self.send("Calibrate", timeout=timeout)

    async def clear_calibration(self, timeout: Optional[float] = None) -> None:
        await self.send("ClearCalibration", timeout=timeout)

    async def set_attribute(self, key: str, value: object, timeout: Optional[float] = None) -> None:
        await self.send("SetAttribute", {"key": key, "value": value}, timeout=timeout)

    async def enable(self, timeout: Optional[float] = None) -> None:
        await self.send("Enable", timeout=timeout)

    async def disable(self, timeout: Optional[float] = None) -> None:
        await self.send("Disable", timeout=timeout)

    async def quit(self, timeout: Optional[float] = None) -> None:
        await self.send("Quit", timeout=timeout)

    async def die_a_quick_death(self, timeout: Optional[float] = None) -> None:
        with contextlib.suppress(DeviceGone):
            await self.exchange("DieAQuickDeath").next(timeout)

    async def set_device_position(self, x: float, y: float, timeout: Optional[float] = None) -> None:
        await self.send("SetDevicePosition", {"x": x, "y": y}, timeout=timeout)

    async def get_device_position(self, timeout: Optional[float] = None) -> Tuple[float, float]:
        return position_in((await self.send("GetDevicePosition", timeout=timeout)).message)

    async def go_home(self, timeout: Optional[float] = None) -> None:
        await self.send("GoHome", timeout=timeout)

    async def cancel_measure(self, timeout: Optional[float] = None) -> None:
        await self.send("CancelMeasure", timeout=timeout)

    async def measure_cancel(self, timeout: Optional[float] = None) -> None:
        await self.send("MeasureCancel", timeout=timeout)

    async def reset(self, timeout: Optional[float] = None) -> None:
        await self.send("__RESET__", timeout=timeout)

    async def measure(self, arguments: Optional[Mapping[str, object]] = None,
                      timeout: Optional[float] = None) -> Response:
        return await self.send("Measure", arguments, timeout=timeout)

    def scan(self, layout: Layout, *, rows: Optional[Sequence[int]] = None, spots: int = 0,
             low_resolution: bool = False, progress: Shown = False, timeout: Optional[float] = None) -> AsyncGenerator[Row, None]:
        """Measures a chart; its rows as they come. Whatever ends it early (an error, a cancelled task, `aclose`, the
        end of the lock's block) cancels the measurement and sends the head home."""
        request = ScanRequest(layout, rows, spots, low_resolution, timeout)
        generator = self._rows(request, Reporter(progress, layout, range(layout.rows) if rows is None else rows))
        self._scans.add(generator)
        return generator

    # --- How it is done

    async def _rows(self, request: ScanRequest, reporter: Reporter) -> AsyncGenerator[Row, None]:
        spot_log = SpotLog(log_folder(self.service.runtime_dir), self.attributes.get("DeviceLogName", ""))
        procedure = Scan(request, lambda: self.record, spot_log).run()
        exchanges: List[Exchange] = []
        has_ended = asyncio.Event()
        self._running.add(has_ended)
        try:
            step = next(procedure)
            while True:
                try:
                    result = None
                    if isinstance(step, Row):
                        reporter.row(step)
                        yield step
                    else:
                        result = await self._perform(step, exchanges)
                except GeneratorExit:
                    step = procedure.throw(Closing())
                except BaseException as problem:
                    step = procedure.throw(problem)
                else:
                    step = procedure.send(result)
        except (StopIteration, Closing):
            return
        finally:
            _close_all(exchanges)
            spot_log.close()
            self._running.discard(has_ended)
            has_ended.set()

    async def _carry_out(self, procedure: Procedure[T]) -> T:
        exchanges: List[Exchange] = []
        try:
            step = next(procedure)
            while True:
                try:
                    result = await self._perform(step, exchanges)
                except BaseException as problem:
                    step = procedure.throw(problem)
                else:
                    step = procedure.send(result)
        except StopIteration as end:
            value: T = end.value
            return value
        finally:
            _close_all(exchanges)

    async def _perform(self, step: Step, exchanges: List[Exchange]) -> Union[Exchange, Response, None]:
        if isinstance(step, Send):
            exchanges.append(self.service._send(self.path, step))
            return exchanges[-1]
        if isinstance(step, Receive):
            response: Response = await step.exchange.next(step.seconds)
            return response
        await asyncio.sleep(step.seconds)
        return None

    async def _end_scans(self) -> None:
        for generator in list(self._scans):
            try:
                await generator.aclose()
            except RuntimeError:  # another task runs it
                return
            except Error:
                pass
        # Generators that were left behind in a loop end by themselves.
        ending = [asyncio.ensure_future(has_ended.wait()) for has_ended in self._running]
        if ending:
            await asyncio.wait(ending, timeout=CANCELLATION)

    async def _release_lock(self, lock: Lock) -> None:
        if lock not in self._locks:
            return
        if len(self._locks) > 1:
            self._locks.remove(lock)
            return
        await self._end_scans()
        with contextlib.suppress(Error):  # the device is gone or does not answer: the lock ends by itself
            await self.unlock(UNLOCKING)


def _close_all(exchanges: List[Exchange]) -> None:
    for exchange in exchanges:
        exchange.close()


class VirtualTable(Table):
    """A table that is simulated; `simulation` holds its settings."""

    simulation: Simulation


@contextlib.asynccontextmanager
async def virtual_table(chart: Optional[str] = None, *, time_scale: float = 0.0,
                        **settings: Any) -> AsyncIterator[VirtualTable]:
    """A private service and a virtual table, for the life of a block: see vell_device.virtual_table."""
    check_chart(chart)
    private = PrivateService({"chart": chart, "time_scale": time_scale, **settings})
    try:
        async with Service(private.folder) as service:
            table = VirtualTable(service, PATH)
            table.simulation = private.simulation
            service._tables[PATH] = table
            end = time.monotonic() + START
            while not table.is_there:
                private.check()
                if time.monotonic() > end:
                    raise Error("the virtual table does not answer")
                await service._wait(lambda: table.is_there, 0.1)
            yield table
    finally:
        await asyncio.get_running_loop().run_in_executor(None, private.close)
