"""The Python package when things go wrong: whoever is killed, and whatever comes over a socket. And asyncio."""

import asyncio
import contextlib
import itertools
import os
import plistlib
import random
import signal
import socket
import struct
import subprocess
import textwrap
import threading
import time
import unittest

import vell_device as vell
from package import PackageTest
from support import PATIENCE, Chart, is_running, single, wait_until
from vell_device import aio
from vell_device.core import Core


def framed(content):
    data = content if isinstance(content, bytes) else plistlib.dumps(content, fmt=plistlib.FMT_BINARY)
    return struct.pack(">I", len(data)) + data


def status(path, **fields):
    return {"Type": "Status", "Record": {"Name": "TaviTable", "Path": path} | fields}


NESTED = ["0"] * 3000
GARBAGE = {
    "no frame": b"\xff" * 4096,
    "an empty frame": bytes(64),
    "no property list": framed(b"bplist00" + bytes(range(200))),
    "no dictionary": framed(["Status"]),
    "no record": framed({"Type": "Status", "Record": 7}),
    "modes that are none": framed(status("usb:odd", Modes=[1])),
    "attributes that are none": framed(status("usb:odd", Attributes={"Beep": 1})),
    "a response without a code": framed(status("usb:odd")) + framed({"Type": "Response", "Ticket": "t"}),
    "more values than memory": framed({"Type": "Response", "Code": 0, "MeasurementSet": [
        {"Colors": [{"Values": NESTED, "Attributes": {}}] * 3000}] * 3000}),
}


class FaultsTest(PackageTest):
    def setUp(self):
        super().setUp()
        self.chart = Chart(6, 5)
        self.layout = vell.Layout.read(self.write_chart(self.chart))

    def spectra(self, rows):
        return {(patch.row, patch.column): patch.spectrum for row in rows for patch in row.patches}

    def assert_measured(self, rows, chart):
        self.assertEqual(self.spectra(rows), {cell: tuple(map(single, spectrum))
                                              for cell, spectrum in chart.spectra.items()})


class GarbageTest(FaultsTest):
    def serve(self, name, greeting, answer=b""):
        """A plug-in that sends the one to whoever connects, and the other when it is sent something."""
        server = socket.socket(socket.AF_UNIX)
        server.bind(os.path.join(self.runtime, name + ".sock"))
        server.listen()
        self.addCleanup(server.close)

        def speak(connection):
            with connection, contextlib.suppress(OSError):
                connection.sendall(greeting)
                while connection.recv(4096):
                    connection.sendall(answer)

        def accept():
            with contextlib.suppress(OSError):
                while True:
                    threading.Thread(target=speak, args=server.accept()[:1], daemon=True).start()

        threading.Thread(target=accept, daemon=True).start()
        self.addCleanup(server.shutdown, socket.SHUT_RDWR)

    def test_garbage_is_told_and_disturbs_no_other_table(self):
        self.start_service()
        self.attach("usb:table", Chart=self.path("chart.txt"))
        service = self.discover()
        table = service.table(timeout=PATIENCE)
        expected = {f"garbage-{number}" for number in range(len(GARBAGE))}

        def complaints(logs):
            return {message.split(os.sep)[-1].split(".sock: its plug-in sent what makes no sense: ")[0]
                    for message in logs.output}

        with self.assertLogs("vell_device", "WARNING") as logs:
            for name, data in zip(sorted(expected), GARBAGE.values()):
                self.serve(name, data)
            self.serve("silent", b"")
            os.mkdir(os.path.join(self.runtime, "folder.sock"))
            wait_until(lambda: complaints(logs) >= expected, "the complaints")
            self.assert_measured(list(table.scan(self.layout)), self.chart)
            time.sleep(0.5)  # they are tried again, and not complained of
        self.assertEqual((complaints(logs), len(logs.output)), (expected, len(expected)))

        async def measure():
            async with aio.Service(self.runtime) as service:
                table = await service.table("usb:table", timeout=PATIENCE)
                rows = [row async for row in table.scan(self.layout)]
                await asyncio.to_thread(wait_until, lambda: complaints(logs) >= expected, "the complaints")
                return rows

        with self.assertLogs("vell_device", "WARNING") as logs:
            self.assert_measured(asyncio.run(measure()), self.chart)
        listed, complaint = self.start_python("-m", "vell_device").communicate(timeout=PATIENCE)
        self.assertRegex(listed, r"^usb:table  .*\n$")
        self.assertIn("garbage-0.sock: its plug-in sent what makes no sense: a frame of 4294967295 bytes\n",
                      complaint)

    def test_garbage_for_an_answer(self):
        self.serve("odd", framed(status("usb:odd")), b"\0\0\0\0")
        self.serve("good", framed(status("usb:good")))
        service = self.discover()
        good, odd = service.tables()
        thief = framed(status("usb:good", SerialNumber="stolen"))
        self.serve("thief", thief)
        with self.assertLogs("vell_device", "WARNING"), good.exchange("Quit") as waiting:
            with self.assertRaisesRegex(vell.DeviceGone, "^Quit: its plug-in sent what makes no sense: a frame of 0 b"):
                odd.quit()
            with self.assertRaises(vell.Timeout):
                waiting.next(timeout=0.5)
        self.assertEqual(good.record.serial_number, "")

    def test_bytes_at_random_never_raise(self):
        """Frames of a real kind, with a byte changed here and there, and cut into pieces."""
        good = framed(status("usb:a", Modes=["M"], Attributes={"Beep": "yes"}, CalibrationStatus=1)) + framed(
            {"Type": "Response", "Ticket": "t", "Name": "Measure", "DevicePath": "usb:a", "Code": 0, "Message": "",
             "MeasurementSet": [{"Mode": "R", "Colors": [{"ColorSpace": "Lab", "Values": ["1", "2", "3"],
                                                          "Attributes": {"Row": "0"}}]}]}) + framed(
            {"Type": "Close", "DevicePath": "usb:a"})
        dice = random.Random(5)
        outcomes = set()
        with self.assertLogs("vell_device"):
            for _ in range(3000):
                data = bytearray(good)
                for _ in range(dice.randrange(3)):
                    data[dice.randrange(len(data))] = dice.randrange(256)
                core = Core("/nowhere")
                core.look({"/nowhere/a.sock": (1, 1)}, 0.0)
                link = core.opened("/nowhere/a.sock", lambda data: None)
                ends = sorted(dice.sample(range(len(data)), 3)) + [len(data)]
                outcomes.add(all(core.received(link, bytes(data[begin:end]), 1.0)
                                 for begin, end in zip([0, *ends], ends)))
        self.assertEqual(outcomes, {True, False})


async def scan_with_asyncio(runtime, layout, rows):
    async with aio.Service(runtime) as service:
        table = await service.table("usb:table", timeout=PATIENCE)
        async with table.lock():
            async for row in table.scan(layout):
                rows.append(row)


def scan_with_threads(runtime, layout, rows):
    with vell.Service(runtime) as service:
        table = service.table("usb:table", timeout=PATIENCE)
        with table.lock():
            for row in table.scan(layout):
                rows.append(row)


FACES = {"threads": scan_with_threads,
         "asyncio": lambda *arguments: asyncio.run(scan_with_asyncio(*arguments))}


class KilledTest(FaultsTest):
    # How far a scan gets, and how it is kept there.
    STAGES = {"calibrating": ("Tavi_Calibrate:1:hang=3600", "TaviProDeviceService::calibrate", 0),
              "in the first strip": ("Tavi_Scan:1:hang=3600", "measureOneStrip IN", 0),
              "between rows": ("Tavi_Scan:3:hang=3600", "measuring row 2...", 2)}

    def log(self):
        with contextlib.suppress(FileNotFoundError):
            name = f"TaviTable_{self.plugin_processes()[-1]}.log"
            with open(os.path.join(self.runtime, "log", name)) as file:
                return file.read()
        return ""

    def killing(self, process, sign, rows, count):
        """Kills the process when the plug-in is that far and so many rows have come."""
        def kill():
            wait_until(lambda: sign in self.log() and len(rows) == count, sign)
            process.kill() if isinstance(process, subprocess.Popen) else os.kill(process, signal.SIGKILL)

        thread = threading.Thread(target=kill)
        thread.start()
        self.addCleanup(thread.join)

    def test_plugin(self):
        self.start_service("--restart-pause", "0.05")
        for (face, scan), (stage, (fault, sign, count)) in itertools.product(FACES.items(), self.STAGES.items()):
            with self.subTest(face=face, stage=stage):
                self.attach("usb:table", Chart=self.path("chart.txt"), Fault=fault)
                table = self.connect()
                rows = []
                victim = int(table.attributes["DeviceProcessPID"])
                self.killing(victim, sign, rows, count)
                with self.assertRaisesRegex(vell.DeviceGone, "the device went away"):
                    scan(self.runtime, self.layout, rows)
                self.assertEqual(len(rows), count)
                wait_until(lambda: not table.is_there, "the end")
                self.attach("usb:table", Chart=self.path("chart.txt"))
                wait_until(lambda: table.is_there and table.attributes["DeviceProcessPID"] != str(victim), "the restart")
                self.assert_measured(list(table.scan(self.layout)), self.chart)  # the same object works again
                os.kill(int(table.attributes["DeviceProcessPID"]), signal.SIGKILL)  # idle
                with self.assertRaises(vell.DeviceGone):
                    table.wait_for(lambda record: False, PATIENCE)
                os.remove(os.path.join(self.hardware, "usb:table.plist"))  # or it would be started ever later
                wait_until(lambda: not self.sockets() and self.log_lines("detached"), "the end of the socket")

    def test_service(self):
        for face, scan in FACES.items():
            with self.subTest(face):
                service = self.start_service()
                self.attach("usb:table", Chart=self.path("chart.txt"), TimeScale=1.0)
                self.connect()
                rows = []
                self.killing(service, "measuring row 1...", rows, 1)
                with self.assertRaises(vell.DeviceGone):
                    scan(self.runtime, self.layout, rows)
                wait_until(lambda: not any(map(is_running, self.plugin_processes())), "the end of the plug-in")
                self.assertEqual(self.sockets(), [])

    def test_client(self):
        """Nothing is left of its private service, nor of a scan that nobody waits for any more."""
        script = textwrap.dedent("""
            import os, sys, vell_device as vell
            with vell.virtual_table(sys.argv[1], time_scale=1) as table, table.lock():
                print(table.attributes["DeviceProcessPID"], flush=True)
                for row in table.scan(vell.Layout.read(sys.argv[1])):
                    print(row.index, flush=True)
            """)
        client = self.start_python("-c", script, self.path("chart.txt"))
        plugin = int(client.stdout.readline())
        self.assertEqual(client.stdout.readline(), "0\n")
        self.assertEqual(len([name for name in os.listdir(self.folder) if name.startswith("vell-")]), 1)
        client.kill()
        wait_until(lambda: not is_running(plugin), "the end of the plug-in")
        wait_until(lambda: not [name for name in os.listdir(self.folder) if name.startswith("vell-")], "the folder")


class AsyncioTest(FaultsTest):
    def test_two_tables_from_one_program(self):
        other = Chart(4, 7, seed=2)
        charts = {"usb:1": self.chart, "usb:2": other}
        self.start_service()
        for path, chart in charts.items():
            self.attach(path, Chart=self.write_chart(chart, path + ".txt"), SerialNumber="S-" + path)
        begun = {}

        async def measure(service, path, chart):
            layout = vell.Layout.read(self.path(path + ".txt"))
            table = await service.table("S-" + path, timeout=PATIENCE)
            seen = []
            table.on_status(seen.append)
            async with table.lock():
                rows = []
                async for row in table.scan(layout):
                    rows.append(row)
                    begun[path].set()
                    for first_row in begun.values():  # at once, not one after the other
                        await asyncio.wait_for(first_row.wait(), PATIENCE)
                self.assertEqual((await table.status()).lock_holder, str(os.getpid()))
            self.assertEqual(await table.get_device_position(), (0, 0))
            self.assertEqual((await table.status()).lock_holder, "")
            self.assertIn(1, [record.calibration_status for record in seen])
            return rows

        async def main():
            begun.update({path: asyncio.Event() for path in charts})
            async with aio.Service(self.runtime) as service:
                found = [measure(service, path, chart) for path, chart in charts.items()]
                return await asyncio.gather(*found)

        for rows, chart in zip(asyncio.run(main()), charts.values()):
            self.assert_measured(rows, chart)

    def test_whatever_ends_a_scan_cancels_it(self):
        async def main():
            async with aio.virtual_table(self.path("chart.txt"), time_scale=1) as table:
                async with table.lock():
                    async for row in table.scan(self.layout):
                        break
                self.assertEqual(await table.get_device_position(), (0, 0))

                async def scan():
                    async with table.lock():
                        async for row in table.scan(self.layout):
                            has_begun.set()

                has_begun = asyncio.Event()
                task = asyncio.create_task(scan())
                await asyncio.wait_for(has_begun.wait(), PATIENCE)
                with self.assertRaises(vell.Busy):
                    await table.send("GoHome", patience=0)
                with self.assertRaises(vell.Timeout):
                    await table.wait_for(lambda record: record.mode == "None", timeout=0.05)
                task.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await task
                self.assertEqual(await table.get_device_position(), (0, 0))
                self.assertEqual((await table.status()).lock_holder, "")
                answers = []
                table.on_button(lambda answer: answers.append(answer.name))
                table.simulation.press()
                await asyncio.to_thread(wait_until, lambda: "BeginMeasure" in answers)

        asyncio.run(main())


if __name__ == "__main__":
    unittest.main()
