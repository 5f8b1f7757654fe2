"""The example client, where things do not go as they should."""

import os
import pathlib
import signal
import subprocess
import sys
import unittest

from support import PATIENCE, ROOT, Chart, ToolsTest, wait_until


class ExampleTest(ToolsTest):
    def setUp(self):
        super().setUp()
        self.start_service()
        self.chart = Chart(60, 10)
        self.layout = self.write_chart(self.chart)

    def connect(self, **simulation):
        """A client of the one table, which is ready to measure then."""
        self.attach("usb:table", Chart=self.layout, **simulation)
        client = super().connect()
        client.call("Calibrate")
        client.call("SetMode", {"Mode": "ScanningReflectance"})
        return client

    def start_example(self, *arguments):
        environment = {name: value for name, value in self.environment.items() if name != "LD_PRELOAD"}
        process = subprocess.Popen([sys.executable, os.path.join(ROOT, "Examples", "measure.py"), *arguments],
                                   env=environment, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end, process)
        return process

    def assert_refuses(self, status, error, *arguments):
        process = self.start_example(*arguments)
        written = process.communicate(timeout=PATIENCE)
        self.assertEqual((process.returncode, *written), (status, "", f"measure.py: {error}\n"))

    def test_layouts_that_are_none(self):
        missing = self.path("missing.txt")
        self.assert_refuses(2, f"{missing}: No such file or directory", missing)
        text = self.chart.text()
        for old, new, reason in (("CHART_COLUMNS", "COLUMNS", "no CHART_COLUMNS"),
                                 ("CHART_ROWS 60", "CHART_ROWS many", "CHART_ROWS cannot be 'many'"),
                                 ('CHART_TOP_LEFT "40.0 40.0"', "CHART_TOP_LEFT 40", "CHART_TOP_LEFT cannot be '40'"),
                                 ('40.0"', "40.0", "No closing quotation")):
            self.assertIn(old, text)
            with open(self.path("broken.txt"), "w") as file:
                file.write(text.replace(old, new, 1))
            self.assert_refuses(2, f"{file.name}: {reason}", file.name)

    def test_no_table_and_several(self):
        self.assert_refuses(3, f"no device in {self.runtime}", self.layout)
        for path in ("usb:2", "usb:1"):
            self.attach(path, Chart=self.layout)
        wait_until(lambda: len(self.tablectl("list")[0].splitlines()) == 2, "both tables")
        self.assert_refuses(2, "more than one device, name one with --device: usb:1, usb:2", self.layout)
        self.assert_refuses(3, f"no device usb:3 in {self.runtime}: there is usb:1, usb:2", self.layout,
                            "--device", "usb:3")
        output, _ = self.start_example(self.layout, "--device", "usb:2").communicate(timeout=PATIENCE)
        self.assertEqual(len(output.splitlines()), 600)

    def test_whatever_ends_it_cancels_and_unlocks(self):
        client = self.connect(TimeScale=1.0)  # the chart takes half a minute
        for end, status in ((signal.SIGINT, 130), (signal.SIGTERM, 143), (None, 1)):
            process = self.start_example(self.layout)
            process.stdout.readline()
            if end:
                process.send_signal(end)
            else:
                process.stdout.close()
            self.assertEqual(process.wait(PATIENCE), status)
            self.assertEqual(process.stderr.read(), "" if end else "measure.py: [Errno 32] Broken pipe\n")
            self.assertNotEqual(client.call("GoHome")["Code"], -1022)  # nobody holds the lock
            wait_until(lambda: client.call("GoHome")["Code"] == 0, "the end of the measurement")
        log = pathlib.Path(self.runtime, "log", client.record["Attributes"]["DeviceLogName"]).read_text()
        self.assertIn("measuring row 0...", log)
        self.assertNotIn(f"measuring row {self.chart.rows - 1}...", log)

    def test_it_asks_a_device_again_that_is_still_busy(self):
        client = self.connect(Fault="Tavi_Scan:1:hang=1")
        client.send("Measure", self.chart.arguments() | {"RowToScan": "0"})
        output, error = self.start_example(self.layout).communicate(timeout=PATIENCE)
        self.assertEqual((len(output.splitlines()), error), (600, ""))


if __name__ == "__main__":
    unittest.main()
