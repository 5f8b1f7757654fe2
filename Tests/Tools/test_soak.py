"""One process for a long time: descriptors, threads and memory stay as they are after the first hundred."""

import os
import unittest

from support import PATIENCE, Chart, ToolsTest, wait_until

SANITIZED = bool(os.environ.get("SANITIZER"))
SCANS = int(os.environ.get("SOAK_SCANS", 300 if SANITIZED else 2000))
SETTLED = 100  # scans, until whatever is kept for good is there
ALLOWANCE = 512  # KiB of memory that come and go


class Usage:
    """What a process uses."""

    def __init__(self, process):
        self.descriptors = len(os.listdir(f"/proc/{process}/fd"))
        self.threads = len(os.listdir(f"/proc/{process}/task"))
        with open(f"/proc/{process}/status") as file:
            self.memory = next(int(line.split()[1]) for line in file if line.startswith("VmRSS"))  # KiB


class SoakTest(ToolsTest):
    def setUp(self):
        super().setUp()
        self.environment |= {"SLEEP_SPEED": "1000000", "VELL_LOG_LEVEL": "warning"}
        self.chart = Chart(2, 4)
        self.settings = {"Chart": self.write_chart(self.chart)}
        self.service = self.start_service()

    def usage(self, process):
        """Once the worker of the last scan and the clients that left are gone."""
        return wait_until(lambda: (now := Usage(process)).threads <= self.threads and now, "the end of a worker")

    def assert_as_before(self, process, before):
        wait_until(lambda: Usage(process).descriptors <= before.descriptors, "the end of descriptors")
        now = self.usage(process)
        self.assertEqual(now.threads, before.threads)
        if not SANITIZED:  # a sanitizer keeps what is freed
            self.assertLess(now.memory, before.memory + ALLOWANCE)

    def scan(self, client, arguments):
        """Measures the chart; the worker of the scan before may not have ended yet."""
        codes = [23]
        while codes == [23]:
            with client.exchange("Measure", arguments) as exchange:
                codes = [exchange.next(PATIENCE).code]
                while codes[-1] == 0 and len(codes) < self.chart.rows:
                    codes.append(exchange.next(PATIENCE).code)
        self.assertEqual(codes, [0] * self.chart.rows)

    def test_a_plugin_measures_charts(self):
        self.attach("usb:soak", **self.settings)
        client = self.connect()
        client.calibrate()
        client.set_mode("ScanningReflectance")
        process = self.plugin_processes()[0]
        self.threads = Usage(process).threads
        before = None
        for number in range(SCANS):
            if number == SETTLED:
                before = self.usage(process)
            if number % 20 == 19:  # clients come and go
                client.service.close()
                client = self.connect()
            spots = {"SpotMeasureCount": "1"} if number % 5 == 4 else {}
            self.scan(client, self.chart.arguments() | spots)
        self.assert_as_before(process, before)
        self.assertEqual(self.plugin_processes(), [process])

    def test_a_service_starts_plugins(self):
        before = None
        for number in range(30):
            file = self.attach("usb:soak", **self.settings)
            self.connect().service.close()
            os.remove(file)
            wait_until(lambda: len(self.log_lines("exit status 0")) == number + 1, "the end of the plug-in")
            if number == 9:
                self.threads = Usage(self.service.pid).threads
                before = self.usage(self.service.pid)
        self.assert_as_before(self.service.pid, before)


if __name__ == "__main__":
    unittest.main()
