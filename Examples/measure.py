#!/usr/bin/env python3
"""Measures a chart through a running plug-in and prints its rows: a client in Python's standard library alone.

    measure.py LAYOUT [--runtime-dir DIR]

A plug-in listens on a Unix socket in the runtime folder. Frames are a 4-byte big-endian length and a binary property
list; docs/commands.md in the project says what is in them.
"""

import argparse
import glob
import itertools
import os
import plistlib
import shlex
import socket
import struct
import sys
import threading


class DeviceError(Exception):
    """The device refused a command: its code and message."""


class Device:
    """One connection to a plug-in."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(path)
        self._stream = self._socket.makefile("rb")
        self._sending = threading.Lock()
        self._tickets = itertools.count(1)
        self.record = {}

    def send(self, name, **arguments):
        """Sends a command; the ticket by which its responses are known."""
        ticket = f"measure-{next(self._tickets)}"
        command = {
            "Type": "Command",
            "Name": name,
            "Ticket": ticket,
            "Device": self.record.get("Name", ""),
            "DevicePath": self.record.get("Path", ""),
            "Arguments": {key: str(value) for key, value in arguments.items()},
        }
        data = plistlib.dumps(command, fmt=plistlib.FMT_BINARY)
        with self._sending:
            self._socket.sendall(struct.pack(">I", len(data)) + data)
        return ticket

    def receive(self):
        """The next frame. A status also becomes `record`."""
        header = self._stream.read(4)
        if len(header) < 4:
            raise DeviceError("the device is gone")
        frame = plistlib.loads(self._stream.read(struct.unpack(">I", header)[0]))
        if frame["Type"] == "Status":
            self.record = frame["Record"]
        return frame

    def response(self, ticket):
        """The next response to a command; raises DeviceError when the device refuses."""
        while True:
            frame = self.receive()
            if frame["Type"] == "Response" and frame["Ticket"] == ticket:
                if frame["Code"] != 0:
                    raise DeviceError(f"{frame['Name']}: {frame['Code']}: {frame['Message']}")
                return frame

    def call(self, name, **arguments):
        return self.response(self.send(name, **arguments))


def read_layout(path):
    """The keywords of a layout file that say where the chart lies."""
    with open(path, encoding="utf-8") as file:
        words = [shlex.split(line, comments=True) for line in file if line.startswith("CHART_")]
    keywords = {line[0]: line[1] for line in words}
    names = {"TopLeft": "CHART_TOP_LEFT", "BotLeft": "CHART_BOTTOM_LEFT", "BotRight": "CHART_BOTTOM_RIGHT"}
    arguments = {
        "Rows": keywords["CHART_ROWS"],
        "Columns": keywords["CHART_COLUMNS"],
        "LastRowColumns": keywords["CHART_LAST_ROW_COLUMNS"],
    }
    for name, keyword in names.items():
        arguments[name + "X"], arguments[name + "Y"] = keywords[keyword].split()
    return arguments


def keep_lock(device, stop):
    """Says something every few seconds: the device drops a lock after 30 seconds of silence."""
    while not stop.wait(10):
        device.send("Lock")


def print_row(measurement_set):
    for patch in measurement_set:
        spectrum, lab = patch["Colors"][:2]
        position = f"{spectrum['Attributes']['Row']:>3} {spectrum['Attributes']['Column']:>3}"
        print(position, " ".join(f"{float(value):8.3f}" for value in lab["Values"]), flush=True)


def measure(device, layout):
    device.call("Lock")
    stop = threading.Event()
    renewal = threading.Thread(target=keep_lock, args=(device, stop))
    renewal.start()
    try:
        if device.record["Mode"] != "ScanningReflectance":
            device.call("SetMode", Mode="ScanningReflectance")
        if device.record["CalibrationStatus"] != 1:
            device.call("Calibrate")
        ticket = device.send("Measure", **layout)
        for _ in range(int(layout["Rows"])):  # one response per row, and no other at the end
            print_row(device.response(ticket)["MeasurementSet"])
    except KeyboardInterrupt:
        device.call("CancelMeasure")
        raise
    finally:
        stop.set()
        renewal.join()
        device.call("Unlock")


def main():
    parser = argparse.ArgumentParser(description="Measures a chart and prints row, column and CIELAB of each patch.")
    parser.add_argument("layout", help="the chart's layout file")
    default = os.environ.get("VELL_RUNTIME_DIR") or (
        os.path.join(os.environ["XDG_RUNTIME_DIR"], "vell") if os.environ.get("XDG_RUNTIME_DIR")
        else f"/tmp/vell-{os.getuid()}")
    parser.add_argument("--runtime-dir", default=default, help=f"where plug-ins listen (default: {default})")
    arguments = parser.parse_args()

    layout = read_layout(arguments.layout)
    sockets = glob.glob(os.path.join(glob.escape(arguments.runtime_dir), "*.sock"))
    if not sockets:
        sys.exit(f"measure.py: no device in {arguments.runtime_dir}")
    device = Device(sockets[0])
    while device.receive()["Type"] != "Status":  # the first one comes by itself
        pass
    try:
        measure(device, layout)
    except DeviceError as error:
        sys.exit(f"measure.py: {error}")


if __name__ == "__main__":
    main()
