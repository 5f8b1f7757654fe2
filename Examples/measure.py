#!/usr/bin/env python3
"""Measures a chart through a running plug-in and prints its rows: a client in Python's standard library alone.

    measure.py LAYOUT [--device PATH] [--runtime-dir DIR]

A plug-in listens on a Unix socket in the runtime folder. Frames are a 4-byte big-endian length and a binary property
list; docs/commands.md in the project says what is in them.

Exit status: 0 done, 1 the device refused or failed, 2 usage or an unreadable layout, 3 no such device, 128 + N ended by
signal N.
"""

import argparse
import contextlib
import glob
import itertools
import os
import plistlib
import shlex
import signal
import socket
import struct
import sys
import threading
import time

BUSY = (4, 5, 23)  # codes of a device that still measures, as it does for a moment after a measurement's last row
PATIENCE = 5  # seconds to ask such a device again, or to wait for a new connection's first status

ARGUMENTS = {  # of Measure, by the layout's keywords
    "CHART_ROWS": ["Rows"],
    "CHART_COLUMNS": ["Columns"],
    "CHART_LAST_ROW_COLUMNS": ["LastRowColumns"],
    "CHART_TOP_LEFT": ["TopLeftX", "TopLeftY"],
    "CHART_BOTTOM_LEFT": ["BotLeftX", "BotLeftY"],
    "CHART_BOTTOM_RIGHT": ["BotRightX", "BotRightY"],
}


class DeviceError(Exception):
    """The device refused a command (with its code and message), or is gone."""

    def __init__(self, text, code=None):
        super().__init__(text)
        self.code = code


class Device:
    """One connection to a plug-in, and the record it published last."""

    def __init__(self, path):
        self._path = path
        self._sending = threading.Lock()
        self._tickets = itertools.count(1)
        self.connect()

    def connect(self):
        """Connects, anew if need be. OSError when nobody answers, as a plug-in without a table does not."""
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(self._path)
        self._stream = self._socket.makefile("rb")
        self._socket.settimeout(PATIENCE)
        while self.receive()["Type"] != "Status":  # the first one comes by itself
            pass
        self._socket.settimeout(None)

    def send(self, name, **arguments):
        """Sends a command; the ticket by which its responses are known."""
        ticket = f"measure-{next(self._tickets)}"
        command = {
            "Type": "Command",
            "Name": name,
            "Ticket": ticket,
            "Device": self.record["Name"],
            "DevicePath": self.record["Path"],
            "Arguments": {key: str(value) for key, value in arguments.items()},
        }
        data = plistlib.dumps(command, fmt=plistlib.FMT_BINARY)
        with self._sending:
            self._socket.sendall(struct.pack(">I", len(data)) + data)
        return ticket

    def receive(self):
        """The next frame. A status also becomes `record`."""
        (length,) = struct.unpack(">I", self._read(4))
        frame = plistlib.loads(self._read(length))
        if frame["Type"] == "Status":
            self.record = frame["Record"]
        return frame

    def _read(self, count):
        data = self._stream.read(count)
        if len(data) < count:
            raise DeviceError("the device is gone")
        return data

    def response(self, ticket):
        """The next response to a command; raises DeviceError when the device refuses."""
        while True:
            frame = self.receive()
            if frame["Type"] == "Response" and frame["Ticket"] == ticket:
                if frame["Code"] != 0:
                    raise DeviceError(f"{frame['Name']}: {frame['Code']}: {frame['Message']}", frame["Code"])
                return frame

    def call(self, name, **arguments):
        """Sends a command, again while the device is busy; its first response."""
        deadline = time.monotonic() + PATIENCE
        while True:
            try:
                return self.response(self.send(name, **arguments))
            except DeviceError as error:
                if error.code not in BUSY or time.monotonic() > deadline:
                    raise
            time.sleep(0.2)


def read_layout(path):
    """Where the layout's chart lies, as the arguments of Measure. ValueError says what is wrong with the file."""
    with open(path, encoding="utf-8") as file:
        lines = [shlex.split(line, comments=True) for line in file if line.startswith("CHART_")]
    values = {keyword: " ".join(words).split() for keyword, *words in lines}
    arguments = {}
    for keyword, names in ARGUMENTS.items():
        number = float if len(names) == 2 else int
        try:
            arguments |= zip(names, map(number, values[keyword]), strict=True)
        except KeyError:
            raise ValueError(f"no {keyword}") from None
        except ValueError:
            raise ValueError(f"{keyword} cannot be '{' '.join(values[keyword])}'") from None
    return arguments


def find_devices(folder):
    """The devices whose plug-ins listen in the folder, by path."""
    devices = {}
    for path in sorted(glob.glob(os.path.join(glob.escape(folder), "*.sock"))):
        with contextlib.suppress(OSError, DeviceError):  # it ended, or has not found its table
            device = Device(path)
            devices[device.record["Path"]] = device
    return devices


@contextlib.contextmanager
def locked(device):
    """Holds the device lock, which is dropped after 30 seconds of silence."""

    def renew():
        while not stop.wait(10):
            with contextlib.suppress(OSError):  # the other thread learns of it, too
                device.send("Lock")

    device.call("Lock")
    stop = threading.Event()
    renewal = threading.Thread(target=renew)
    renewal.start()
    try:
        yield
    finally:
        stop.set()
        renewal.join()
        with contextlib.suppress(OSError, DeviceError):  # a device that is gone is free
            device.call("Unlock")


def measure(device, layout):
    """Measures the chart and prints it row by row. Whatever ends this ends the measurement, too."""
    if device.record["Mode"] != "ScanningReflectance":
        device.call("SetMode", Mode="ScanningReflectance")
    if device.record["CalibrationStatus"] != 1:
        device.call("Calibrate")
    try:
        response = device.call("Measure", **layout)
        print_row(response["MeasurementSet"])
        for _ in range(1, layout["Rows"]):  # one response per row, and no other at the end
            print_row(device.response(response["Ticket"])["MeasurementSet"])
    except DeviceError:
        raise  # it has ended by itself
    except BaseException:  # a signal, a closed pipe
        with contextlib.suppress(OSError, DeviceError):
            device.connect()  # anew: it may have come in the middle of a frame
            device.call("CancelMeasure")
        raise


def print_row(measurement_set):
    for patch in measurement_set:
        spectrum, lab = patch["Colors"][:2]
        position = f"{spectrum['Attributes']['Row']:>3} {spectrum['Attributes']['Column']:>3}"
        print(position, " ".join(f"{float(value):8.3f}" for value in lab["Values"]), flush=True)


def fail(status, text):
    print(f"measure.py: {text}", file=sys.stderr)
    sys.exit(status)


def choose(devices, wanted, folder):
    """The device that is meant, which need not be named when it is the only one."""
    there = ", ".join(sorted(devices)) or "none"
    if wanted and wanted not in devices:
        fail(3, f"no device {wanted} in {folder}: there is {there}")
    if not devices:
        fail(3, f"no device in {folder}")
    if not wanted and len(devices) > 1:
        fail(2, f"more than one device, name one with --device: {there}")
    return devices[wanted or next(iter(devices))]


def main():
    parser = argparse.ArgumentParser(description="Measures a chart and prints row, column and CIELAB of each patch.")
    parser.add_argument("layout", help="the chart's layout file")
    parser.add_argument("--device", metavar="PATH", help="which device, when there are several")
    default = os.environ.get("VELL_RUNTIME_DIR") or (
        os.path.join(os.environ["XDG_RUNTIME_DIR"], "vell") if os.environ.get("XDG_RUNTIME_DIR")
        else f"/tmp/vell-{os.getuid()}")
    parser.add_argument("--runtime-dir", default=default, help=f"where plug-ins listen (default: {default})")
    arguments = parser.parse_args()

    try:
        layout = read_layout(arguments.layout)
    except (OSError, ValueError) as error:
        fail(2, f"{arguments.layout}: {getattr(error, 'strerror', error)}")
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    device = choose(find_devices(arguments.runtime_dir), arguments.device, arguments.runtime_dir)
    try:
        with locked(device):
            measure(device, layout)
    except (OSError, DeviceError) as error:
        with contextlib.suppress(OSError):
            sys.stdout.close()  # or what it could not take would be tried again
        fail(1, error)


if __name__ == "__main__":
    main()
