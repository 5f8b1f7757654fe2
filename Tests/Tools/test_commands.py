"""Every command of tablectl, and several clients at one device."""

import fcntl
import json
import os
import pty
import re
import signal
import struct
import subprocess
import termios
import unittest

from support import PATIENCE, Chart, ToolsTest, read_measurements, wait_until


class CommandsTest(ToolsTest):
    def setUp(self):
        super().setUp()
        self.start_service(environment=self.steering(clock_speed=5))  # it looks at its instruments more often
        self.chart = Chart(2, 4)
        self.file = self.attach("usb:table", Chart=self.write_chart(self.chart), SerialNumber="S-1")
        self.table = self.connect()

    def test_looking(self):
        self.assertRegex(self.tablectl("list")[0], r"^usb:table  \S.*S-1.*not calibrated\n$")
        listed = json.loads(self.tablectl("--json", "list")[0])
        self.assertEqual((listed["Path"], listed["SerialNumber"]), ("usb:table", "S-1"))
        status = json.loads(self.tablectl("--json", "status")[0])
        self.assertEqual(status["Attributes"]["DevicePath"], "usb:table")
        self.assertEqual(self.tablectl("get", "SerialNumber")[0], "S-1\n")
        self.assertEqual(self.tablectl("get", "Mode", "Beep")[0], "Mode=SingleReflectance\nBeep=yes\n")
        self.tablectl("get", "Nothing", status=1)
        commands = self.tablectl("commands")[0].splitlines()
        self.assertEqual(commands[0], "GetCommands")
        self.assertIn("SetDevicePosition  x y", commands)

    def test_moving_and_setting(self):
        self.tablectl("move", "12.5", "7")
        self.assertEqual(self.tablectl("position")[0], "12.500000 7.000000\n")
        self.assertEqual(json.loads(self.tablectl("--json", "position")[0]), {"x": 12.5, "y": 7.0})
        self.tablectl("home")
        _, error = self.tablectl("move", "1e9", "7", status=1)
        self.assertRegex(error, r"^tablectl: SetDevicePosition: \d+: \S.*\n$")
        self.tablectl("set", "Beep", "No")
        self.assertEqual(self.tablectl("get", "Beep")[0], "no\n")
        self.assertIn("SetAttribute: 1: ", self.tablectl("set", "Nonsense", "1", status=1)[1])
        self.tablectl("mode", "ScanningReflectance")
        self.assertEqual(self.tablectl("get", "Mode")[0], "ScanningReflectance\n")
        self.assertIn("SetMode: 7: ", self.tablectl("mode", "Nonsense", status=1)[1])
        self.tablectl("calibrate")
        self.assertEqual(self.tablectl("get", "CalibrationStatus")[0], "1\n")
        self.tablectl("cancel")
        self.tablectl("reset")

    def measure(self, *arguments, status=0):
        """Sends "Measure", again while the measurement before has not quite ended; what was written."""
        def attempt():
            result = self.run_tablectl("send", "Measure", *arguments)
            return result if "Measure: 23: " not in result.stderr else None
        result = wait_until(attempt, "the end of the measurement before")
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        return result.stdout, result.stderr

    def test_sending_anything(self):
        self.assertEqual(self.tablectl("send", "Quit")[0], "Quit: 0\n")
        self.assertIn("Nonsense: 15: ", self.tablectl("send", "Nonsense", status=1)[1])
        self.tablectl("send", "Measure", "Rows", status=2)
        self.tablectl("calibrate")
        self.tablectl("mode", "ScanningReflectance")
        arguments = [f"{key}={value}" for key, value in self.chart.arguments().items()]
        rows, _ = self.measure(*arguments)
        self.assertEqual(rows.count("Measure: 0"), 2)
        self.assertEqual(rows.count(" Lab "), 8)
        row, _ = self.measure(*map(str.lower, arguments), "rowtoscan=1")
        self.assertEqual((row.count("Measure: 0"), row.count(" Lab ")), (1, 4))
        self.assertIn("not on the chart", self.measure(*arguments, "RowToScan=2", status=1)[1])
        for name, value in (("Rows", "0"), ("Columns", "-1")):
            self.assertIn("Measure: 22: ", self.measure(*arguments, f"{name}={value}", status=1)[1])
        for value in ("nan", "inf", "4000"):
            with self.subTest(value):
                _, error = self.measure(*arguments, f"TopLeftX={value}", status=1)
                self.assertRegex(error, r"Measure: \d+: \S")
                wait_until(lambda: self.table.get_device_position() == (0, 0))

    def test_an_interrupted_measurement_does_not_go_on(self):
        self.tablectl("calibrate")
        self.tablectl("send", "Measure", "Rows=3")  # its position: one answer
        self.tablectl("mode", "ScanningReflectance")
        self.tablectl("simulate", "--time-scale", "0.2")
        arguments = [f"{key}={value}" for key, value in self.chart.arguments().items()]
        sender = self.start("tablectl", "send", "Measure", *arguments, stdout=subprocess.PIPE)
        sender.stdout.readline()  # the first row
        sender.send_signal(signal.SIGINT)
        self.assertEqual(sender.wait(60), 128 + signal.SIGINT)
        wait_until(lambda: self.table.get_device_position() == (0, 0))

    def test_devices_that_are_not_there(self):
        for command in ("status", "list"):
            self.assertIn("no such device", self.tablectl("--device", "usb:other", command, status=3)[1])
        chart = self.path("chart.txt")
        for arguments, problem in (([], "name a command"), (["nonsense"], "no such command: nonsense"),
                                   (["get"], "KEY is required"), (["move", "1"], "Y is required"),
                                   (["move", "x", "1"], "X: not a number: x"), (["scan"], "LAYOUT is required"),
                                   (["lock", "-1"], "SECONDS: not a number of 0 or more: -1"),
                                   (["scan", chart, "--spot", "0"], "--spot: not a whole number above 0: 0"),
                                   (["simulate", "--table", "sideways"], "--table: neither on nor off: sideways"),
                                   (["simulate", "--fault", "Tavi_Scan:x:11"], "--fault: not CALL:N:STATUS.*"),
                                   (["--simulated", "", "list"], "cannot be opened.*"),
                                   (["simulate", "--chart", self.path("none")], "none: cannot be opened")):
            output, error = self.tablectl("--json", *arguments, status=2)
            self.assertRegex(error, rf"^tablectl: .*{problem}\n")
            self.assertRegex(json.loads(output)["message"], problem)
        os.remove(self.file)
        wait_until(lambda: not self.sockets())
        _, error = self.tablectl("status", status=3)
        self.assertIn("no device in " + self.runtime, error)
        output, error = self.tablectl("list")
        self.assertEqual(output, "")
        self.assertIn("no device in " + self.runtime, error)

    def test_a_lock_keeps_other_clients_out(self):
        holder = self.start("tablectl", "lock", "600")
        self.table.wait_for(lambda record: record.lock_holder == str(holder.pid), PATIENCE)
        for arguments in (["home"], ["scan", self.path("chart.txt"), "--time-scale", "3"]):
            _, error = self.tablectl(*arguments, status=1)
            self.assertRegex(error, rf"-1022: .*locked by .*process {holder.pid} \(tablectl\)")
        self.assertEqual(json.loads(self.tablectl("--json", "simulate")[0])["TimeScale"], "0")
        self.assertIn(f"locked by {holder.pid}", self.tablectl("list")[0])
        self.tablectl("status")
        holder.send_signal(signal.SIGINT)
        self.assertEqual(holder.wait(60), 128 + signal.SIGINT)
        self.tablectl("home")

    def test_a_spectrophotometer_lifted_off_and_put_back(self):
        self.tablectl("calibrate")
        self.tablectl("simulate", "--spectrophotometer", "off")
        self.table.wait_for(lambda record: record.serial_number == "", PATIENCE)
        self.assertIn("Calibrate: 35: no spectrophotometer on the table\n", self.tablectl("calibrate", status=1)[1])
        self.assertIn("SetMode: 35: ", self.tablectl("mode", "ScanningReflectance", status=1)[1])
        self.tablectl("move", "10", "10")
        self.assertIn("no spectrophotometer", self.tablectl("list")[0])
        self.tablectl("simulate", "--spectrophotometer", "on")
        record = self.table.wait_for(lambda record: record.serial_number == "S-1", PATIENCE)
        self.assertEqual(record.calibration_status, 0)
        self.tablectl("scan", self.path("chart.txt"), "--output", self.path("out.txt"))
        self.assertEqual(len(read_measurements(self.path("out.txt"))), 8)

    def test_watching_ends_with_the_device(self):
        watch = self.start("tablectl", "--json", "status", "--watch", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual(json.loads(watch.stdout.readline())["Attributes"]["Beep"], "yes")
        self.tablectl("set", "Beep", "no")
        while json.loads(watch.stdout.readline())["Attributes"]["Beep"] != "no":
            pass
        os.remove(self.file)
        _, error = watch.communicate(timeout=60)
        self.assertEqual(watch.returncode, 1)
        self.assertIn("the device went away", error)

    def test_watching_on_a_small_terminal(self):
        """Every line fits in, and no more of them than there are rows; a key is not all that is seen of a line."""
        parent, child = pty.openpty()
        self.addCleanup(os.close, parent)
        fcntl.ioctl(child, termios.TIOCSWINSZ, struct.pack("HHHH", 10, 30, 0, 0))
        watch = self.start("tablectl", "status", "--watch", stdout=child)
        os.close(child)
        screen = b""
        while b"more lines)" not in screen:
            screen += os.read(parent, 4096)
        watch.send_signal(signal.SIGINT)
        lines = [line.strip("\r") for line in re.sub(r"\x1b\[\d*[A-Z]", "", screen.decode()).split("\n")]
        self.assertEqual(len([line for line in lines if line]), 9)
        self.assertLessEqual(max(map(len, lines)), 29)
        self.assertEqual(lines[2], "Path: usb:table")

    def test_the_virtual_instrument_follows_its_settings(self):
        shown = json.loads(self.tablectl("--json", "simulate")[0])
        self.assertEqual(shown["SerialNumber"], "S-1")
        self.tablectl("simulate", "--serial", "S-2", "--fault", "Tavi_Calibrate:1:6")
        self.table.wait_for(lambda record: record.serial_number == "S-2", PATIENCE)
        self.assertIn("Calibrate: 16: ", self.tablectl("calibrate", status=1)[1])
        self.tablectl("calibrate")
        self.tablectl("set", "AutoCalibratesOnButtonPress", "yes")
        answers = []
        self.table.on_button(lambda answer: answers.append(answer.name))
        self.tablectl("simulate", "--press")
        wait_until(lambda: answers, "an answer")
        self.assertEqual(answers[0], "BeginMeasure")
        self.tablectl("simulate", "--attach", "usb:table", status=1)
        for path in ("usb:a-b", "usb:a_b"):  # one after the other in the same file, if it were for the name
            self.tablectl("simulate", "--attach", path, "--serial", path + "!")
        for path in ("usb:a-b", "usb:a_b"):
            self.assertEqual(json.loads(self.tablectl("--json", "--device", path, "simulate")[0])["Path"], path)
            self.tablectl("--device", path + "!", "simulate", "--detach")
        self.tablectl("simulate", "--detach")
        self.tablectl("simulate", status=3)

    def test_two_tables_measure_two_charts_at_once(self):
        other = Chart(3, 5, seed=2)
        self.attach("usb:second", Chart=self.write_chart(other, "other.txt"), SerialNumber="S-2")
        wait_until(lambda: len(self.tablectl("list")[0].splitlines()) == 2, "the second table")
        _, error = self.tablectl("home", status=2)
        self.assertRegex(error, "name one.*usb:second.*usb:table")
        scans = [self.start("tablectl", "--device", device, "scan", self.path(chart), "--output", self.path(output),
                            stderr=subprocess.DEVNULL)
                 for device, chart, output in (("usb:table", "chart.txt", "1.txt"), ("S-2", "other.txt", "2.txt"))]
        self.assertEqual([scan.wait(60) for scan in scans], [0, 0])
        self.assertEqual(len(read_measurements(self.path("1.txt"))), 8)
        self.assertEqual(len(read_measurements(self.path("2.txt"))), 15)


if __name__ == "__main__":
    unittest.main()
