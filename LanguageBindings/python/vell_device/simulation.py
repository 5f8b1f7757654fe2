"""A private device service with one virtual table, for as long as a block lasts."""

from __future__ import annotations

import contextlib
import os
import plistlib
import shutil
import subprocess
import tempfile
from typing import Any, Dict, Iterator, Optional

from .charts import Layout
from .errors import Error
from .service import Service, Table

SPECTROPHOTOMETER = {"VendorID": 0x971, "ProductID": 0x2000}
PATH = "usb:virtual-table"
START = 60.0  # seconds
END = 20.0  # seconds
LONGEST_FOLDER = 107 - len("/12345678.sock")  # that a socket's address can name


def program_folder() -> str:
    """Where vell-service is: in the tree that this package was installed into, else on the path. Error when nowhere."""
    prefix = os.path.abspath(__file__)
    for _ in range(5):  # this file in vell_device, dist-packages, python3, lib
        prefix = os.path.dirname(prefix)
    beside = os.path.join(prefix, "bin", "vell-service")
    found = beside if os.access(beside, os.X_OK) else shutil.which("vell-service")
    if not found:
        raise Error("vell-service is neither installed beside this package nor on the path")
    return os.path.dirname(os.path.realpath(found))


class Simulation:
    """The settings of a virtual table. All of them take effect at once, in the middle of a scan, too; what is no
    setting is a TypeError. docs/virtual-instrument.md says what they do."""

    _KEYS = {"chart": "Chart", "time_scale": "TimeScale", "noise": "Noise", "fault": "Fault", "table": "Table",
             "serial_number": "SerialNumber", "identifier": "Identifier"}

    def __init__(self, runtime_dir: str, **settings: Any) -> None:
        programs = program_folder()
        properties = os.path.join(programs, os.pardir, "lib", "TaviIO.bundle", "Contents", "Info.plist")
        with open(properties, "rb") as file:
            bundle = plistlib.load(file)
        self.runtime_dir = runtime_dir
        self.programs = programs
        self._file = os.path.join(runtime_dir, "hardware", "table.plist")
        self._simulation: Dict[str, Any] = {}
        self._content = {"Path": PATH, "VendorID": bundle["VellDevicePluginVendorID"],
                         "ProductID": bundle["VellDevicePluginProductID"],
                         "DeviceClass": bundle["VellDevicePluginDeviceClassx64"],
                         "Siblings": [SPECTROPHOTOMETER], "Simulation": self._simulation}
        os.makedirs(os.path.dirname(self._file), mode=0o700, exist_ok=True)
        self.set(**settings)

    def set(self, **settings: Any) -> None:
        """Changes settings: `chart` (a layout file, or None for bare paper), `time_scale` (1 as on the real table, 0
        at once), `noise` (standard deviation of each spectral value), `fault` ("CALL:N:STATUS", "CALL:N:throw",
        "CALL:N:hang=SECONDS" or ""), `table` (False: it does not answer), `serial_number`, `identifier`."""
        for name, value in settings.items():
            if name not in self._KEYS:
                raise TypeError(f"a virtual table has no setting {name}: there are {', '.join(self._KEYS)}")
            if name == "chart":
                value = os.path.abspath(value) if value else ""
            elif name in ("time_scale", "noise"):
                value = float(value)
            self._simulation[self._KEYS[name]] = value
        self._save()

    def press(self) -> None:
        """Presses the button on the instrument."""
        self._simulation["Presses"] = self._simulation.get("Presses", 0) + 1
        self._save()

    def lift_off(self) -> None:
        """Takes the spectrophotometer off the table."""
        self._content["Siblings"] = []
        self._save()

    def put_back(self) -> None:
        """Puts it back."""
        self._content["Siblings"] = [SPECTROPHOTOMETER]
        self._save()

    def detach(self) -> None:
        """Takes the table away; any other setting attaches it again."""
        with contextlib.suppress(FileNotFoundError):
            os.remove(self._file)

    def _save(self) -> None:
        unfinished = os.path.join(os.path.dirname(self._file), ".table")  # nobody's device
        with open(unfinished, "wb") as file:
            plistlib.dump(self._content, file)
        os.rename(unfinished, self._file)


class PrivateService:
    """The process and its folder. It ends with the thread that made it, too, so that nothing is left when that is killed."""

    def __init__(self, settings: Dict[str, Any]) -> None:
        self.folder = tempfile.mkdtemp(prefix="vell-")
        try:
            if len(self.folder) > LONGEST_FOLDER:
                raise Error(f"the folder for temporary files has too long a name for sockets: {self.folder}")
            with open(os.path.join(self.folder, ".temporary"), "wb"):  # tells the service to remove the folder
                pass
            self.simulation = Simulation(self.folder, **settings)
            environment = {**os.environ, "VELL_RUNTIME_DIR": self.folder,
                           "VELL_HARDWARE_DIR": os.path.join(self.folder, "hardware")}
            environment.pop("VELL_LOG_DIR", None)
            # In a session of its own, so that an interrupt from the terminal leaves it to us.
            self._process = subprocess.Popen(
                [os.path.join(self.simulation.programs, "vell-service"), "--quiet", "--temporary", str(os.getpid())],
                env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, start_new_session=True)
        except BaseException:
            shutil.rmtree(self.folder, ignore_errors=True)
            raise

    def check(self) -> None:
        """Error when the process has ended."""
        if self._process.poll() is not None:
            raise Error(f"vell-service ended with status {self._process.returncode}")

    def close(self) -> None:
        """Ends the process and removes the folder."""
        self._process.terminate()
        try:
            self._process.wait(END)
        except BaseException as problem:
            self._process.kill()
            self._process.wait()
            if not isinstance(problem, subprocess.TimeoutExpired):
                raise
        finally:
            shutil.rmtree(self.folder, ignore_errors=True)


class VirtualTable(Table):
    """A table that is simulated; `simulation` holds its settings."""

    simulation: Simulation


@contextlib.contextmanager
def virtual_table(chart: Optional[str] = None, *, time_scale: float = 0.0, **settings: Any) -> Iterator[VirtualTable]:
    """A private service and a virtual table with the chart of a layout file on it, for the life of a block.

    `settings` are those of `Simulation.set`. `time_scale` 1 is as long as the real table takes; 0 takes no time. Error
    when the service cannot be started; FileError or OSError when the chart cannot be read."""
    check_chart(chart)
    private = PrivateService({"chart": chart, "time_scale": time_scale, **settings})
    try:
        with Service(private.folder) as service:
            table = VirtualTable(service, PATH)
            table.simulation = private.simulation
            service._tables[PATH] = table
            await_start(service, private)
            yield table
    finally:
        private.close()


def check_chart(chart: Optional[str]) -> None:
    """What is wrong with it is said here, not in the plug-in's log."""
    if chart:
        Layout.read(chart)


def await_start(service: Service, private: PrivateService) -> None:
    """Until the table has shown itself."""
    for _ in range(int(START / 0.1)):
        private.check()
        service._wait(lambda: service._core.is_there(PATH), 0.1)
        if service._core.is_there(PATH):
            return
    raise Error("the virtual table does not answer")
