"""Sessions with the instrument that were recorded once, played back: the same answers, to the byte.

Each recording in Tests/Recordings stands beside what tablectl showed and measured then. A driver that asks the instrument
for something else, or in another order, fails with the recording's line. After a change that is meant to do so,
RECORD_ANEW="strips cancelled" makes these again, from the virtual instrument with noise.
"""

import glob
import json
import os
import signal
import subprocess
import time
import unittest

from support import ROOT, Chart, ToolsTest

RECORDINGS = os.path.join(ROOT, "Tests", "Recordings")
CHART = os.path.join(RECORDINGS, "chart.txt")

# What the virtual instrument is set to, and what tablectl is told; the exit status.
SESSIONS = {
    "strips": ({}, ["--rows", "0-1"], 0),
    "spot-row": ({"TimeScale": 0.001}, [], 0),
    "calibration-fails": ({"Fault": "Tavi_Calibrate:1:6"}, [], 1),
    "exception": ({"Fault": "Tavi_Scan:2:throw"}, [], 1),
    "lift-off": ({"Fault": "Tavi_Scan:2:hang=1"}, [], 1),
    "cancelled": ({"Fault": "Tavi_Scan:2:hang=4"}, [], 128 + signal.SIGINT),
}


def chart():
    """The second row has equal neighbours, which a strip takes for one patch."""
    made = Chart(4, 4)
    made.spectra[1, 1] = made.spectra[1, 2]
    return made


class RecordingsTest(ToolsTest):
    def scan(self, name, *prefix, on_row=lambda scan: None):
        """Scans the chart; what was shown, without the speeds, and what was measured."""
        _, options, status = SESSIONS[name]
        output = self.path(name + ".txt")
        scan = self.start("tablectl", *prefix, "--json", "scan", CHART, "--output", output, *options,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        shown = ""
        for line in scan.stdout:
            event = json.loads(line)
            if event["event"] == "row":
                on_row(scan)
            shown += json.dumps({key: value for key, value in event.items()
                                 if key not in ("patchesPerSecond", "secondsLeft", "seconds")}) + "\n"
        _, error = scan.communicate()
        self.assertEqual(scan.returncode, status, shown + error)
        measured = ""
        if os.path.exists(output):
            with open(output) as file:
                measured = file.read()
        return shown, measured

    def interrupt(self, name):
        """What happens when a row arrives: the cancel comes well into the next strip, which lasts 4 seconds."""
        def cancel(scan):
            time.sleep(1)
            scan.send_signal(signal.SIGINT)
        return cancel if name == "cancelled" else lambda scan: None

    def record(self, name):
        """Makes the recording of one session, and writes what came of it beside it."""
        service = self.start_service("--record", self.path("recordings"))
        settings = {"TimeScale": 0.0, "Noise": 0.002, "Chart": CHART} | SESSIONS[name][0]
        self.attach("table-1", **settings)
        self.connect()

        def on_row(scan):
            if name == "lift-off":
                self.attach("table-1", spectrophotometer=False, **settings)
            self.interrupt(name)(scan)

        results = self.scan(name, on_row=on_row)
        self.end(service)
        made, = glob.glob(self.path("recordings/*.jsonl"))
        with open(os.path.join(RECORDINGS, name + ".jsonl"), "w") as file:
            file.write(self.tablectl("recording", made, "--anonymous")[0])
        for kind, text in zip(("shown", "measured"), results):
            with open(os.path.join(RECORDINGS, f"{name}.{kind}"), "w") as file:
                file.write(text)

    def test_a_driver_asks_and_answers_as_it_did(self):
        for name in SESSIONS:
            with self.subTest(name):
                recording = os.path.join(RECORDINGS, name + ".jsonl")
                results = self.scan(name, "--replayed", recording, on_row=self.interrupt(name))
                for kind, result in zip(("shown", "measured"), results):
                    with open(os.path.join(RECORDINGS, f"{name}.{kind}")) as file:
                        self.assertEqual(result, file.read(), kind)


def record_anew():
    with open(CHART, "w") as file:
        file.write(chart().text())
    for name in os.environ["RECORD_ANEW"].split():
        test = RecordingsTest()
        test.setUp()
        try:
            test.record(name)
        finally:
            test.doCleanups()


if os.environ.get("RECORD_ANEW"):
    record_anew()
