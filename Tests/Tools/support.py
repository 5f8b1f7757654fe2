"""What the tests of the programs share: a runtime folder of their own, charts, and clients."""

import contextlib
import fcntl
import math
import os
import plistlib
import pty
import random
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

import vell_device as vell

BIN = os.environ["TOOLS_BIN"]
ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
PATIENCE = float(os.environ.get("PATIENCE", 60))  # seconds: far more than anything takes, on a loaded machine too
BANDS = range(380, 740, 10)
TABLE = {"VendorID": 2417, "ProductID": 8193, "DeviceClass": "IOUSBHostDevice"}
SPECTROPHOTOMETER = {"VendorID": 0x971, "ProductID": 0x2000}


def wait_until(condition, what="the condition", seconds=PATIENCE):
    """Waits for a true value and returns it."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} does not come")
        time.sleep(0.01)


def single(number):
    """The number as a 32-bit float."""
    return struct.unpack("f", struct.pack("f", number))[0]


class Chart:
    """A chart whose patches all differ from their neighbours; `angle` turns it, `skew` leans its columns."""

    def __init__(self, rows, columns, last=0, pitch=10.0, angle=0.0, skew=0.0, origin=(40.0, 40.0), seed=1):
        self.rows, self.columns, self.last = rows, columns, last
        across = (math.cos(angle) * pitch, math.sin(angle) * pitch)
        down = (-math.sin(angle + skew) * pitch, math.cos(angle + skew) * pitch)
        self.top_left = origin
        self.bottom_left = tuple(origin[i] + down[i] * (rows - 1) for i in (0, 1))
        self.bottom_right = tuple(self.bottom_left[i] + across[i] * (columns - 1) for i in (0, 1))
        dice = random.Random(seed)
        self.spectra = {}
        for row in range(rows):
            first = columns - last if last and row == rows - 1 else 0
            for column in range(first, columns):
                level = 0.1 + 0.5 * ((row + column) % 2) + 0.3 * dice.random()
                slope = dice.uniform(-0.05, 0.05)
                self.spectra[row, column] = [round(level + slope * i / 35, 4) for i in range(36)]

    def text(self):
        fields = "SAMPLE_ID ROW COLUMN " + " ".join(f"SPECTRAL_NM{band}" for band in BANDS)
        lines = ["CGATS.17", f"CHART_ROWS {self.rows}", f"CHART_COLUMNS {self.columns}",
                 f"CHART_LAST_ROW_COLUMNS {self.last}"]
        for name, (x, y) in (("TOP_LEFT", self.top_left), ("BOTTOM_LEFT", self.bottom_left),
                             ("BOTTOM_RIGHT", self.bottom_right)):
            lines.append(f'CHART_{name} "{x!r} {y!r}"')
        lines += ["NUMBER_OF_FIELDS 39", "BEGIN_DATA_FORMAT", fields, "END_DATA_FORMAT",
                  f"NUMBER_OF_SETS {len(self.spectra)}", "BEGIN_DATA"]
        for (row, column), spectrum in self.spectra.items():
            lines.append(f"P{row}-{column} {row} {column} " + " ".join(map(str, spectrum)))
        return "\n".join(lines + ["END_DATA", ""])

    def arguments(self):
        names = ("TopLeft", self.top_left), ("BotLeft", self.bottom_left), ("BotRight", self.bottom_right)
        corners = {name + axis: repr(value) for name, point in names for axis, value in zip("XY", point)}
        return corners | {"Rows": str(self.rows), "Columns": str(self.columns), "LastRowColumns": str(self.last)}


def read_measurements(path):
    """The readings of a measurement file, which must be whole."""
    with open(path) as file:
        lines = file.read().splitlines()
    assert lines[-1:] == ["END_DATA"], lines[-1:]
    names = lines[lines.index("BEGIN_DATA_FORMAT") + 1].split()
    data = lines[lines.index("BEGIN_DATA") + 1:-1]
    assert ["NUMBER_OF_SETS", str(len(data))] in [line.replace('"', "").split() for line in lines]
    return [dict(zip(names, line.replace('"', "").split())) for line in data]


def measurements_so_far(path):
    """The readings in the file of a running scan; none when it is not there yet or is just being written."""
    try:
        return read_measurements(path)
    except (FileNotFoundError, AssertionError, ValueError):
        return []


def shown_commands(document, beginning):
    """The commands that a document shows, of those that begin like this (a regular expression)."""
    with open(os.path.join(ROOT, document)) as file:
        lines = re.findall(rf"^    ((?:{beginning})\b.*)$", file.read(), re.M)
    assert lines, (document, beginning)
    return lines


class RawClient:
    """A client of one plug-in, on the wire: for those who would not behave as the package does."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(path)
        self.tickets = 0

    def close(self):
        self.socket.close()

    def send(self, name, arguments=None):
        self.tickets += 1
        ticket = f"t{self.tickets}"
        data = plistlib.dumps({"Type": "Command", "Name": name, "Ticket": ticket, "Device": "", "DevicePath": "",
                               "Arguments": arguments or {}}, fmt=plistlib.FMT_BINARY)
        self.socket.sendall(struct.pack(">I", len(data)) + data)
        return ticket

    def _bytes(self, count):
        data = b""
        while len(data) < count:
            part = self.socket.recv(count - len(data))
            if not part:
                raise EOFError
            data += part
        return data

    def frame(self):
        """A frame as it is on the wire."""
        header = self._bytes(4)
        return header + self._bytes(struct.unpack(">I", header)[0])

    def receive(self):
        return plistlib.loads(self.frame()[4:])

    def response(self, ticket):
        while True:
            frame = self.receive()
            if frame["Type"] == "Response" and frame["Ticket"] == ticket:
                return frame

    def call(self, name, arguments=None):
        return self.response(self.send(name, arguments))

    def status(self, condition=lambda record: True):
        while True:
            frame = self.receive()
            if frame["Type"] == "Status" and condition(frame["Record"]):
                return frame["Record"]


class Terminal:
    """What a program shows on a terminal of its own, and the keys that are pressed there."""

    def __init__(self, columns, rows=24):
        self.parent, self.child = pty.openpty()
        fcntl.ioctl(self.child, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.shown = ""
        self.seen = 0  # how much of it was waited for

    def _read(self):
        with contextlib.suppress(OSError):  # what the last program on it leaves
            if select.select([self.parent], [], [], 0.01)[0]:
                self.shown += os.read(self.parent, 65536).decode()

    def wait_for(self, text):
        """Waits until the text is shown after what was waited for before."""
        def is_shown():
            self._read()
            return text in self.shown[self.seen:]
        wait_until(is_shown, repr(text))
        self.seen = self.shown.index(text, self.seen) + len(text)

    def press(self, keys):
        os.write(self.parent, keys.encode())

    def close(self):
        os.close(self.parent)
        os.close(self.child)


class ToolsTest(unittest.TestCase):
    """Each test has a runtime folder of its own and leaves no process behind."""

    programs = BIN

    def setUp(self):
        # A socket's path is short, and the loader splits the paths of what it preloads at blanks.
        self.folder = tempfile.mkdtemp(prefix="tools-test-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.folder)
        self.runtime = os.path.join(self.folder, "run")
        self.hardware = os.path.join(self.runtime, "hardware")
        os.makedirs(self.hardware, mode=0o700)
        os.chmod(self.runtime, 0o700)
        self.environment = {name: value for name, value in os.environ.items() if not name.startswith("VELL_")}
        self.environment |= {"VELL_RUNTIME_DIR": self.runtime, "TMPDIR": self.folder,
                             "LD_PRELOAD": self.preloaded("FAST_SLEEP")}
        options = self.environment.get("ASAN_OPTIONS", "")
        self.environment["ASAN_OPTIONS"] = options + ":verify_asan_link_order=0"

    def preloaded(self, *libraries):
        """The libraries for the loader, wherever they were built."""
        links = [self.path(name.lower() + ".so") for name in libraries]
        for name, link in zip(libraries, links):
            with contextlib.suppress(FileExistsError):
                os.symlink(os.environ[name], link)
        return ":".join(links)

    def steering(self, clock_speed):
        """The environment of a process whose clocks are that many times as fast."""
        return {"LD_PRELOAD": self.preloaded("STEERED_TIME", "FAST_SLEEP"), "CLOCK_SPEED": str(clock_speed)}

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, program, *arguments, environment=None, **options):
        process = subprocess.Popen([os.path.join(self.programs, program), *arguments], text=True,
                                   env=self.environment | (environment or {}), **options)
        self.addCleanup(self.end, process)
        return process

    def end(self, process):
        """Ends a process as its user would, and insists that it does."""
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.communicate(timeout=PATIENCE)
            return
        process.kill()
        process.communicate()
        self.fail(f"{process.args} does not end")

    def start_on_terminal(self, columns, *arguments, environment=None):
        """A command that is steered by keys, and its terminal."""
        terminal = Terminal(columns)
        self.addCleanup(terminal.close)
        process = self.start("tablectl", *arguments, environment=environment, stdin=terminal.child,
                             stdout=terminal.child, stderr=terminal.child)
        return process, terminal

    def run_tablectl(self, *arguments):
        return subprocess.run([os.path.join(self.programs, "tablectl"), *arguments], env=self.environment, text=True,
                              capture_output=True, timeout=PATIENCE)

    def tablectl(self, *arguments, status=0):
        """Runs a command to its end; what it wrote to standard output and standard error."""
        result = self.run_tablectl(*arguments)
        self.assertEqual(result.returncode, status, f"{arguments}: {result.stdout}{result.stderr}")
        return result.stdout, result.stderr

    def measured_in_python(self, package, charts):
        """What a script says that measures with an installed Python package."""
        script = ("import vell_device as vell\n"
                  "with vell.virtual_table('print-target.txt') as table:\n"
                  "    print(len(list(table.scan(vell.Layout.read('print-target.txt')))), 'rows')")
        return subprocess.run([sys.executable, "-c", script], cwd=charts, text=True, timeout=300, check=True,
                              stdout=subprocess.PIPE, env=self.environment | {"PYTHONPATH": package}).stdout

    def run_shown(self, document, beginning, folder, **environment):
        """Runs commands that a document shows, in its order, and returns what they wrote."""
        output = ""
        for line in shown_commands(document, beginning):
            variables = self.environment | environment
            if not line.startswith("tablectl"):
                del variables["LD_PRELOAD"]
            result = subprocess.run(line, shell=True, cwd=folder, env=variables, text=True, capture_output=True,
                                    timeout=300)
            self.assertEqual(result.returncode, 0, f"{line}\n{result.stdout[-3000:]}{result.stderr[-3000:]}")
            output += result.stdout
        return output

    def show_log(self):
        """The service's log beside a failure."""
        result = self._outcome.result
        if any(getattr(test, "test_case", test) is self for test, _ in result.failures + result.errors):
            with open(self.service_log) as log:
                print(log.read(), file=sys.stderr)

    def start_service(self, *arguments, program="vell-service", **options):
        self.service_log = self.path("service.log")
        self.addCleanup(self.show_log)
        self.addCleanup(lambda: self.assertEqual(self.log_lines("Sanitizer"), [], "a plug-in or the service"))
        with open(self.service_log, "a") as log:
            return self.start(program, *arguments, stderr=log, **options)

    def log_lines(self, text):
        with open(self.service_log) as log:
            return [line for line in log if text in line]

    def attach(self, path, spectrophotometer=True, table=TABLE, **simulation):
        """Writes a table's hardware file, as a whole."""
        file = os.path.join(self.hardware, path + ".plist")
        unfinished = os.path.join(self.hardware, "." + path)
        siblings = [SPECTROPHOTOMETER] if spectrophotometer else []
        with open(unfinished, "wb") as new:
            plistlib.dump(table | {"Path": path, "Siblings": siblings,
                                   "Simulation": {"TimeScale": 0.0} | simulation}, new)
        os.rename(unfinished, file)
        return file

    def libraries(self):
        """A folder like the programs' lib, for copies of them, which search their libraries beside themselves."""
        theirs, ours = os.path.join(os.path.dirname(BIN), "lib"), self.path("lib")
        os.mkdir(ours)
        for name in os.listdir(theirs):
            if ".so" in name:
                os.symlink(os.path.join(theirs, name), os.path.join(ours, name))
        return ours

    def write_chart(self, chart, name="chart.txt"):
        with open(self.path(name), "w") as file:
            file.write(chart.text())
        return self.path(name)

    def sockets(self):
        return [os.path.join(self.runtime, name) for name in os.listdir(self.runtime) if name.endswith(".sock")]

    def discover(self):
        """A client of all plug-ins."""
        service = vell.Service(self.runtime)
        self.addCleanup(service.close)
        return service

    def connect(self, path=None):
        """A client's view of the table, once its plug-in is connected to it; without a path there is only one."""
        return self.discover().table(path, timeout=PATIENCE)

    def plugin_processes(self):
        return [int(line.split()[-1]) for line in self.log_lines("started process")]


def is_running(process):
    """Whether the process exists and is no zombie."""
    try:
        with open(f"/proc/{process}/stat") as file:
            return file.read().rsplit(")", 1)[1].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False
