"""The Python package at work: commands, scans, locks and events of tables whose plug-ins run."""

import contextlib
import io
import os
import re
import signal
import unittest
import unittest.mock

import vell_device as vell
from package import PackageTest
from support import PATIENCE, ROOT, Chart, read_measurements, single, wait_until
from vell_device import aio


class TablesTest(PackageTest):
    def setUp(self):
        super().setUp()
        self.chart = Chart(6, 5, last=3)
        self.layout = vell.Layout.read(self.write_chart(self.chart))

    def start_table(self, clock_speed=1, **simulation):
        self.start_service(environment=self.steering(clock_speed))
        self.attach("usb:table", Chart=self.path("chart.txt"), SerialNumber="S-1", **simulation)
        return self.connect()

    def assert_measured(self, rows, chart):
        self.assertEqual([(patch.row, patch.column) for row in rows for patch in row.patches], list(chart.spectra))
        for row in rows:
            for patch in row.patches:
                self.assertEqual(patch.sample_id, f"P{patch.row}-{patch.column}")
                self.assertEqual(patch.spectrum, tuple(map(single, chart.spectra[patch.row, patch.column])))

    def assert_free(self, table):
        """Nobody holds the lock, nothing runs, and the head is home."""
        self.assertEqual(table.status(timeout=PATIENCE).lock_holder, "")
        self.assertEqual(table.get_device_position(timeout=PATIENCE), (0, 0))

    def test_a_chart_is_measured_as_tablectl_does_it(self):
        self.chart.spectra[2, 2] = self.chart.spectra[2, 3]  # no strip tells them apart
        self.write_chart(self.chart)
        table = self.start_table()
        told = []
        measurement = vell.Measurement.of(self.layout)
        with table.lock():
            self.assertEqual(table.status().lock_holder, str(os.getpid()))
            rows = list(table.scan(self.layout, progress=told.append))
            self.assert_measured(rows, self.chart)
            self.assertEqual([row.by_spots for row in rows], [False, False, True, False, False, False])
            for row in rows:
                measurement.add(row)
        self.assertEqual([(step.rows_done, step.rows, step.patches_done, step.patches) for step in told[-2:]],
                         [(5, 6, 25, 28), (6, 6, 28, 28)])
        self.assert_free(table)
        self.assertEqual(table.attributes["LowResolutionScan"], "no")
        measurement.write(self.path("own.txt"))
        self.tablectl("scan", self.path("chart.txt"), "--output", self.path("out.txt"))
        self.assertEqual(read_measurements(self.path("own.txt")), read_measurements(self.path("out.txt")))
        self.assertEqual(vell.Measurement.read(self.path("out.txt")).readings, measurement.readings)

    def test_rows_and_spots(self):
        table = self.start_table()
        rows = list(table.scan(self.layout, rows=[1, 5], spots=2, low_resolution=True))
        self.assertEqual([row.index for row in rows], [1, 5])
        self.assertEqual([reading.spot_index for reading in rows[1].readings], [0, 1] * 3)
        self.assertEqual(table.attributes["LowResolutionScan"], "no")
        list(table.scan(self.layout, rows=[0]))
        self.assert_free(table)
        for wrong in ({"rows": [6]}, {"rows": [-1]}, {"spots": -1}):
            with self.assertRaises(ValueError):
                table.scan(self.layout, **wrong)
        outside = vell.Layout(1, 3, (5000, 40), (5000, 40), (5020, 40))
        with self.assertRaisesRegex(vell.DeviceError, r"^Measure: \d+: .*5000"):
            list(table.scan(outside))
        self.assert_free(table)

    def test_commands(self):
        table = self.start_table()
        for face in (vell.Table, aio.Table):
            for command in [*table.get_commands(), "Lock", "Unlock", "ClearCalibration", "DieAQuickDeath"]:
                method = re.sub(r"(?<=[a-z])(?=[A-Z])|(?<=A)(?=Q)", "_", command).lower()
                self.assertTrue(callable(getattr(face, method)), method)
        table.calibrate()
        table.set_device_position(12.5, 7)
        self.assertEqual(table.get_device_position(), (12.5, 7))
        self.assertEqual(table.measure().position, (12.5, 7))
        table.set_attribute("Beep", False)
        table.set_mode("ScanningReflectance")
        self.assertEqual((table.attributes["Beep"], table.record.mode, table.record.calibration_status),
                         ("no", "ScanningReflectance", 1))
        table.clear_calibration()
        self.assertEqual(table.record.calibration_status, 0)
        for command, code, text in (("Nonsense", 15, "the device knows no such command"),
                                    ("SetMode", 7, "the device has no such mode"),
                                    ("Measure", 47, "the device is not calibrated and .*")):
            with self.assertRaisesRegex(vell.DeviceError, rf"^{command}: {code}: {text}$") as caught:
                table.send(command, {"Mode": "None"})
            self.assertEqual(caught.exception.code, code)
        with self.assertRaises(ValueError):
            table.send("Quit", data=bytes(17 << 20))
        table.reset()
        table.die_a_quick_death()
        wait_until(lambda: not table.is_there)
        with self.assertRaises(vell.DeviceGone):
            table.quit()

    def test_whoever_is_named(self):
        service = self.discover()
        with self.assertRaisesRegex(vell.NoDevice, f"^no device in {self.runtime}$"):
            service.table(timeout=0.3)
        table = self.start_table()
        self.attach("usb:second", SerialNumber="S-2")
        wait_until(lambda: len(service.tables()) == 2)
        self.assertEqual((service.table("S-2").path, service.table("usb:table").path), ("usb:second", "usb:table"))
        for wanted, reason in ((None, "more than one .*: usb:second, usb:table"),
                               ("Tavi Scanning Table", "more than one .*"),
                               ("usb:third", "no device usb:third in .*: there is usb:second, usb:table")):
            with self.assertRaisesRegex(vell.NoDevice, f"^{reason}$"):
                service.table(wanted, timeout=0.3)
        listed = self.start_python("-m", "vell_device").communicate(timeout=PATIENCE)
        self.assertEqual(listed, (self.tablectl("list")[0], ""))
        os.chmod(self.runtime, 0o1777)
        with self.assertRaisesRegex(vell.Error, "no folder of this user alone"):
            vell.Service(self.runtime).table()
        os.chmod(self.runtime, 0o700)
        self.assertTrue(table.is_there)

    def test_locks(self):
        table = self.start_table()
        with table.lock() as same:
            self.assertIs(same, table)
            with table.lock():
                pass
            _, error = self.tablectl("home", status=1)
            self.assertIn(f"-1022: the device is locked by another client, process {os.getpid()}", error)
        holder = self.start("tablectl", "lock", "600")
        table.wait_for(lambda record: record.lock_holder == str(holder.pid), PATIENCE)
        with self.assertRaisesRegex(vell.Locked, rf"^GoHome: -1022: .*, process {holder.pid} \(tablectl\)$") as caught:
            table.go_home()
        self.assertEqual(caught.exception.holder, str(holder.pid))
        with self.assertRaises(vell.Locked):
            list(table.scan(self.layout))

    def test_a_lock_is_renewed(self):
        """Its 30 seconds pass in less than one; so does the time between two renewals in this process."""
        table = self.start_table(clock_speed=60)
        with unittest.mock.patch("vell_device.core.RENEW_LOCK_EVERY", 0.1):
            with table.lock():
                with self.assertRaises(vell.Timeout):
                    table.wait_for(lambda record: record.lock_holder == "", timeout=2)

    def test_closing_a_scan_cancels_it(self):
        table = self.start_table(TimeScale=1.0)
        for leave in ("break", "lock", "service"):
            with self.subTest(leave), vell.Service(self.runtime) as service:
                with contextlib.ExitStack() as held:
                    other = service.table()
                    held.enter_context(other.lock())
                    rows = other.scan(self.layout)
                    next(rows)
                    if leave == "break":
                        rows.close()
                        self.assertEqual(other.get_device_position(), (0, 0))
                    elif leave == "service":
                        service.close()
                self.assertEqual(list(rows), [])
                self.assert_free(table)
        log = os.path.join(self.runtime, "log", table.attributes["DeviceLogName"])
        with open(log) as file:
            self.assertNotIn("measuring row 5...", file.read())

    def test_an_interrupt_or_a_closed_pipe_ends_the_example_and_its_scan(self):
        table = self.start_table(TimeScale=1.0)
        for end, error in ((signal.SIGINT, "KeyboardInterrupt"), (None, "BrokenPipeError: [Errno 32] Broken pipe")):
            process = self.start_python(os.path.join(ROOT, "Examples", "measure.py"), self.path("chart.txt"), "S-1")
            self.assertRegex(process.stdout.readline(), r"^  0   0 ( +\d+\.\d{3}){3}\n$")
            process.send_signal(end) if end else process.stdout.close()
            written = process.stderr.read()
            self.assertIn(error, written.splitlines())
            self.assertNotEqual(process.wait(PATIENCE), 0)
            self.assert_free(table)
        with open(os.path.join(self.runtime, "log", table.attributes["DeviceLogName"])) as file:
            self.assertNotIn("measuring row 5...", file.read())

    def test_a_busy_device_is_asked_again_for_a_moment(self):
        table = self.start_table(TimeScale=1.0)
        table.calibrate()
        table.set_mode("ScanningReflectance")
        with table.exchange("Measure", self.chart.arguments()) as measuring:
            self.assertEqual(measuring.next().code, 0)
            with self.assertRaises(vell.Busy) as caught:
                table.send("GoHome", patience=0.2)
            self.assertEqual(caught.exception.code, 23)
            with self.assertRaises(vell.Timeout):
                measuring.next(timeout=0.01)
            table.cancel_measure()
            codes = [measuring.next().code]
            while codes[-1] == 0:
                codes.append(measuring.next().code)
            self.assertEqual(codes[-1], -1023)
            table.go_home()  # asked again while the measurement ends

    def test_somebody_else_cancels(self):
        table = self.start_table(TimeScale=1.0)
        with self.assertRaises(vell.Cancelled):
            for _ in table.scan(self.layout):
                table.cancel_measure()
        self.assert_free(table)

    def test_what_befalls_a_table(self):
        """Its appearance, presses of its button, its spectrophotometer lifted off, and its end."""
        events, statuses, answers = [], [], []
        with vell.virtual_table(self.path("chart.txt"), noise=0.01, serial_number="S-9") as table:
            table.service.on_device(lambda kind, which: events.append((kind, which)))
            table.on_status(statuses.append)
            end = table.on_button(answers.append)
            patch = next(table.scan(self.layout, rows=[0], spots=3)).patches[0]
            spectra = [reading.spectrum for reading in patch.readings]
            self.assertEqual(len(set(spectra)), 3)  # noise
            self.assertAlmostEqual(patch.spectrum[7], sum(spectrum[7] for spectrum in spectra) / 3)
            self.assertEqual(patch.lab, vell.colorimetry.lab(patch.spectrum))
            table.set_mode("SingleReflectance")
            table.set_device_position(30, 40)
            table.simulation.press()
            wait_until(lambda: len(answers) == 2)
            self.assertEqual([answer.name for answer in answers], ["BeginMeasure", "Measure"])
            self.assertEqual(answers[1].position, (30, 40))
            end()
            table.simulation.set(fault="Tavi_Calibrate:1:throw")
            with self.assertRaisesRegex(vell.DeviceError, "^Calibrate: 14: "):
                wait_until(table.calibrate)
            table.simulation.lift_off()
            table.wait_for(lambda record: not record.serial_number, PATIENCE)
            with self.assertRaisesRegex(vell.DeviceError, "^Calibrate: 35: no spectrophotometer on the table$"):
                table.calibrate()
            table.simulation.put_back()
            table.wait_for(lambda record: record.serial_number == "S-9", PATIENCE)
            table.simulation.detach()
            wait_until(lambda: not table.is_there)
            table.simulation.set(serial_number="S-10")
            wait_until(lambda: table.is_there)
            folder = table.service.runtime_dir
            wait_until(lambda: len(events) == 3)
            self.assertEqual(events, [("appeared", table), ("gone", table), ("appeared", table)])
            wait_until(lambda: statuses[-1].serial_number == "S-10")
            self.assertIn("", [record.serial_number for record in statuses])
        self.assertEqual((len(answers), len(events)), (2, 3))  # the service's own end is no event
        self.assertFalse(os.path.exists(folder))
        with self.assertRaisesRegex(TypeError, "no setting nois"):
            with vell.virtual_table(nois=1):
                pass
        with self.assertRaises(FileNotFoundError):
            with vell.virtual_table(self.path("none.txt")):
                pass
        self.assertEqual([name for name in os.listdir(self.folder) if name.startswith("vell-")], [])

    def test_progress_of_people(self):
        layout = vell.Layout(2, 4, (0, 0), (0, 10), (30, 10))
        rows = [vell.Row(index, tuple(vell.Patch((vell.Reading("", index, column, 0, vell.Lab(0, 0, 0), ()),))
                                      for column in range(4)), by_spots=bool(index)) for index in range(2)]
        for is_terminal, expected in ((False, "row 0: 4 patches\nrow 1: 4 patches, by spots\n"),
                                      (True, r"\r\[#{15}\.{15}\] row 1/2  4/8 patches  0:00 left.*"
                                             r"\r\[#{30}\] row 2/2  8/8 patches  0:00 left.*\n")):
            stream = io.StringIO()
            stream.isatty = lambda: is_terminal
            with contextlib.redirect_stderr(stream):
                from vell_device.progress import Reporter
                reporter = Reporter(True, layout, range(2))
                for row in rows:
                    reporter.row(row)
            self.assertRegex(stream.getvalue(), rf"^(?:{expected})$")


if __name__ == "__main__":
    unittest.main()
