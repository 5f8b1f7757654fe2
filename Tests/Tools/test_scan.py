"""Charts measured end to end: tablectl, the service, the plug-in and a virtual table."""

import glob
import json
import math
import os
import re
import resource
import signal
import termios
import unittest

from support import BANDS, PATIENCE, Chart, ToolsTest, measurements_so_far, read_measurements, single, wait_until


class ScanTest(ToolsTest):
    def measure(self, chart, *options, on_table=None):
        """Scans the chart on a table that holds it; the readings of the file."""
        layout = self.write_chart(chart)
        simulated = self.write_chart(on_table, "table.txt") if on_table else layout
        output = self.path("out.txt")
        self.tablectl("--simulated", simulated, "scan", layout, "--time-scale", "0", "--output", output, *options)
        return read_measurements(output)

    def assert_measured(self, readings, chart, spots=1, rows=None):
        rows = range(chart.rows) if rows is None else rows
        expected = [(row, column, spot) for row, column in chart.spectra if row in rows for spot in range(spots)]
        self.assertEqual([tuple(int(r[key]) for key in ("ROW", "COLUMN", "SPOT_INDEX")) for r in readings], expected)
        for reading, (row, column, _) in zip(readings, expected):
            self.assertEqual(reading["SAMPLE_ID"], f"P{row}-{column}")
            measured = [single(float(reading[f"SPECTRAL_NM{band}"])) for band in BANDS]
            self.assertEqual(measured, [single(value) for value in chart.spectra[row, column]], (row, column))

    def test_every_shape_of_chart_gives_its_own_spectra(self):
        shapes = {
            "4 by 6": Chart(4, 6),
            "turned": Chart(4, 8, angle=0.2),
            "turned the other way": Chart(3, 8, angle=-0.15, origin=(60, 90)),
            "leaning": Chart(4, 7, skew=0.15, origin=(70, 40)),
            "short last row": Chart(3, 9, last=4),
            "short last row, turned": Chart(3, 9, last=5, angle=0.12),
            "last row of one patch": Chart(3, 6, last=1),
            "one row": Chart(1, 7),
            "one column": Chart(5, 1),
            "one patch": Chart(1, 1),
            "small patches": Chart(3, 12, pitch=8.0),
        }
        for name, chart in shapes.items():
            with self.subTest(name):
                self.assert_measured(self.measure(chart), chart)

    def test_spot_readings_count_at_most_five_each(self):
        chart = Chart(2, 3, angle=0.1)
        for count in (1, 3, 5, 9):
            with self.subTest(count=count):
                self.assert_measured(self.measure(chart, "--spot", str(count)), chart, spots=min(count, 5))

    def test_rows_one_by_one(self):
        chart = Chart(4, 6, last=3)
        self.assert_measured(self.measure(chart, "--rows", "0-3"), chart)
        self.assert_measured(self.measure(chart, "--rows", "1-2", "--low-resolution"), chart, rows=(1, 2))
        self.assert_measured(self.measure(chart, "--rows", "2", "--spot", "2"), chart, spots=2, rows=(2,))

    def test_grey_has_the_lightness_of_its_reflectance(self):
        chart = Chart(2, 2)
        for index, cell in enumerate(chart.spectra):
            chart.spectra[cell] = [(1.0, 0.5, 0.18, 0.04)[index]] * 36
        for reading in self.measure(chart):
            reflectance = float(reading["SPECTRAL_NM500"])
            self.assertAlmostEqual(float(reading["LAB_L"]), 116 * math.cbrt(single(reflectance)) - 16, places=4)
            self.assertAlmostEqual(float(reading["LAB_A"]), 0, places=4)
            self.assertAlmostEqual(float(reading["LAB_B"]), 0, places=4)

    def test_equal_neighbours_are_read_by_spots_and_reported(self):
        chart = Chart(3, 5)
        chart.spectra[1, 2] = chart.spectra[1, 3]
        layout = self.write_chart(chart)
        events, _ = self.tablectl("--simulated", layout, "--json", "scan", layout, "--time-scale", "0", "--output",
                                  self.path("out.txt"))
        events = [json.loads(line) for line in events.splitlines()]
        self.assertEqual([event["event"] for event in events],
                         ["calibrating", "begin", "row", "row", "row", "done"])
        self.assertEqual([event["spot"] for event in events if event["event"] == "row"], [False, True, False])
        self.assertEqual(events[-1]["spotRows"], [1])
        self.assertNotIn("readings", events[-2])
        self.assert_measured(read_measurements(self.path("out.txt")), chart)

    def test_without_an_output_file_the_readings_go_to_standard_output(self):
        chart = Chart(1, 3)
        layout = self.write_chart(chart)
        text, _ = self.tablectl("--simulated", layout, "scan", layout, "--time-scale", "0")
        with open(self.path("piped.txt"), "w") as file:
            file.write(text)
        self.assert_measured(read_measurements(self.path("piped.txt")), chart)
        events, _ = self.tablectl("--simulated", layout, "--json", "scan", layout, "--time-scale", "0")
        row, = [event for event in map(json.loads, events.splitlines()) if event["event"] == "row"]
        self.assertEqual([(reading["sampleId"], reading["column"]) for reading in row["readings"]],
                         [(f"P0-{column}", column) for column in range(3)])
        for reading, spectrum in zip(row["readings"], chart.spectra.values()):
            self.assertEqual([single(value) for value in reading["spectrum"]], [single(value) for value in spectrum])

    def test_files_are_not_lost(self):
        layout = self.write_chart(Chart(1, 2))
        os.symlink(layout, self.path("link.txt"))
        for options in (["--output", layout], ["--report", self.path("link.txt")],
                        ["--output", self.path("new"), "--report", self.path("./new")]):
            _, error = self.tablectl("scan", layout, *options, status=2)
            self.assertIn("would replace", error)
        other = self.write_chart(Chart(1, 2), "other.txt")
        _, error = self.tablectl("--simulated", other, "scan", layout, "--output", other, status=2)
        self.assertIn("would replace", error)
        for option in ("--output", "--report"):
            _, error = self.tablectl("scan", layout, option, self.path("nowhere/file"), status=1)
            self.assertRegex(error, "nowhere/file: cannot be written: No such file")
        self.tablectl("--simulated", layout, "scan", layout, "--time-scale", "0", "--output", "/dev/null",
                      "--report", "/dev/null")

    def test_a_target_as_its_generator_wrote_it(self):
        chart = Chart(3, 4, last=2, angle=0.1)
        fields = {cell: f'"patch {cell[0]} ""{cell[1]}"" <b>" {cell[1]}.50 0{cell[0]}' for cell in chart.spectra}
        with open(self.path("target.ti1"), "w", newline="\r\n") as file:
            print("CTI1\nDESCRIPTOR \"a target\"\nBEGIN_DATA_FORMAT\nSAMPLE_ID\tSAMPLE_NAME CMYK_C 6CLR_1", file=file)
            print(f"END_DATA_FORMAT\nNUMBER_OF_SETS {len(fields)}\nBEGIN_DATA", file=file)
            for (row, column), text in fields.items():
                print(f"P{row}-{column} {text}", file=file)
            print("END_DATA", file=file)
        with open(self.path("placed.txt"), "w") as file:
            file.write(chart.text().split("NUMBER_OF_FIELDS")[0])
        corners = [f"{x!r},{y!r}" for x, y in (chart.top_left, chart.bottom_left, chart.bottom_right)]
        table = self.write_chart(chart)
        scan = ["--simulated", table, "scan", self.path("target.ti1"), "--time-scale", "0", "--output",
                self.path("out.txt")]
        for place in (["--placement", self.path("placed.txt")], ["--corners", *corners, "--grid", "3x4+2"]):
            self.tablectl(*scan, *place, "--report", self.path("out.html"))
            with open(self.path("out.txt")) as file:
                lines = file.read().splitlines()
            for line, (cell, text) in zip(lines[lines.index("BEGIN_DATA") + 1:], fields.items(), strict=False):
                self.assertTrue(line.startswith(f'"P{cell[0]}-{cell[1]}" {cell[0]} {cell[1]} 0 {text} '), line)
                self.assertEqual([single(float(value)) for value in line.split()[-36:]],
                                 [single(value) for value in chart.spectra[cell]])
        with open(self.path("out.html")) as file:
            self.assertIn('"values":["patch 2 \\"3\\" \\u003cb>","3.50","02"]', file.read())
        for options, reason in ((["--grid", "3x5"], "12 patches|CHART_TOP_LEFT"), (["--grid", "3"], "not ROWSxCOLUMNS"),
                                (["--grid", "3x4+5"], "between 0 and 4"), (["--corners", "1,2", "3,4", "5"], "not X,Y"),
                                (["--corners", "1,1", "2,2", "3,3", "--grid", "3x4+2"], "one line"),
                                (["--placement", table, "--grid", "3x4"], "excludes"), ([], "CHART_ROWS"),
                                (["--placement", self.path("target.ti1")], "target.ti1: the keyword CHART_ROWS")):
            self.assertRegex(self.tablectl(*scan, *options, status=2)[1], reason)
        _, error = self.tablectl("--simulated", self.path("target.ti1"), "list", status=2)
        self.assertIn("CHART_ROWS", error)
        self.tablectl(*scan, "--grid", "3x4+2", "--corners", "-5,40", "-5,60", "25,60")

    def test_layouts_that_make_no_sense(self):
        good = Chart(2, 2).text()
        broken = {
            "rows": (good.replace("CHART_ROWS 2", "CHART_ROWS 0"), 2),
            "nan": (good.replace('"40.0 40.0"', '"nan 40.0"'), 5),
            "no number": (good.replace("P1-0 1 0 0", "P1-0 1 0 x"), 16),
        }
        for name, (text, line) in broken.items():
            with self.subTest(name):
                with open(self.path("bad.txt"), "w") as file:
                    file.write(text)
                for arguments in (["scan", self.path("bad.txt")], ["--simulated", self.path("bad.txt"), "list"]):
                    _, error = self.tablectl(*arguments, status=2)
                    self.assertRegex(error, rf"bad\.txt:{line}: \w")
        _, error = self.tablectl("scan", self.path("none.txt"), status=2)
        self.assertIn("none.txt: ", error)

    def test_a_chart_off_the_table_fails_with_the_instruments_text(self):
        outside = Chart(2, 3, origin=(5000.0, 40.0))
        layout = self.write_chart(outside)
        _, error = self.tablectl("--simulated", layout, "scan", layout, "--time-scale", "0", "--output",
                                 self.path("out.txt"), status=1)
        self.assertRegex(error, r"tablectl: Measure: \d+: .*5000")
        self.assertEqual(read_measurements(self.path("out.txt")), [])

    def test_nothing_is_left_of_a_simulation(self):
        layout = self.write_chart(Chart(1, 2))
        self.tablectl("--simulated", layout, "status")
        process = self.start("tablectl", "--simulated", layout, "lock", "600")
        wait_until(lambda: glob.glob(self.path("tablectl-*/*.sock")), "a plug-in")
        process.kill()
        # The service and its plug-in end with the program that they were for, even when it is killed.
        wait_until(lambda: not glob.glob(self.path("tablectl-*")), "the end of the folder")


class InterruptedScanTest(ToolsTest):
    def start_scan(self, *options, **redirections):
        """A scan that takes its time, with its first row measured."""
        self.chart = Chart(24, 10)  # time enough for whoever interrupts it
        layout = self.write_chart(self.chart)
        self.start_service()
        self.attach("usb:table", Chart=layout)
        client = self.connect()
        self.tablectl("calibrate")
        self.tablectl("simulate", "--time-scale", "0.3")
        scan = self.start("tablectl", "scan", layout, *options, **redirections)
        return scan, client

    def wait_for_rows(self, count):
        def are_there():
            return len({reading["ROW"] for reading in measurements_so_far(self.path("out.txt"))}) >= count
        wait_until(are_there, "a row")

    def assert_device_is_free(self, client):
        """The head is home, nobody holds the lock, and the next scan works."""
        self.tablectl("simulate", "--time-scale", "0")
        self.assertEqual(client.send("GetDevicePosition", patience=0).message, self.home)
        self.assertEqual(self.tablectl("get", "LockHolder")[0], "\n")
        self.tablectl("scan", self.path("chart.txt"), "--output", self.path("next.txt"))
        self.assertEqual(len(read_measurements(self.path("next.txt"))), 240)

    def setUp(self):
        super().setUp()
        self.home = "0.000000,0.000000"

    def test_interrupts_keep_the_rows_that_arrived(self):
        scan, client = self.start_scan("--output", self.path("out.txt"), stderr=-1)
        self.wait_for_rows(2)
        scan.send_signal(signal.SIGINT)
        _, error = scan.communicate()
        self.assertEqual(scan.returncode, 128 + signal.SIGINT)
        self.assertIn("of 24 rows", error)
        readings = read_measurements(self.path("out.txt"))
        self.assertGreaterEqual(len(readings), 20)
        self.assertLess(len(readings), 240)
        self.assert_device_is_free(client)

    def test_a_torn_measurement_goes_on_to_the_same_file(self):
        scan, _ = self.start_scan("--output", self.path("out.txt"), stderr=-1)
        self.wait_for_rows(2)
        scan.send_signal(signal.SIGINT)
        scan.communicate()
        self.tablectl("simulate", "--time-scale", "0")
        layout = self.path("chart.txt")
        self.tablectl("scan", layout, "--output", self.path("whole.txt"))
        with open(self.path("whole.txt"), "rb") as whole, open(self.path("out.txt"), "r+b") as torn:
            expected = whole.read()
            torn.truncate(len(torn.read()) - 30)  # as the disk may leave it
        _, told = self.tablectl("scan", layout, "--resume", self.path("out.txt"), "--report", self.path("out.html"))
        kept = int(re.search(r"(\d+) rows kept", told).group(1))
        self.assertIn(f"{24 - kept} of {24 - kept} rows", told)
        self.assertGreaterEqual(kept, 1)
        with open(self.path("out.txt"), "rb") as file:
            self.assertEqual(file.read(), expected)
        with open(self.path("out.html")) as file:
            self.assertIn('"Rows measured","24 of 24"', file.read())
        self.assertIn("has all of these rows", self.tablectl("scan", layout, "--resume", self.path("out.txt"))[1])
        # Another chart's is left as it is; the line that differs is named.
        self.tablectl("scan", self.write_chart(Chart(4, 5), "other.txt"), "--resume", self.path("out.txt"), status=2)
        renamed = Chart(24, 10).text().replace("P3-1 ", "Q ")
        with open(self.path("renamed.txt"), "w") as file:
            file.write(renamed)
        _, error = self.tablectl("scan", self.path("renamed.txt"), "--resume", self.path("out.txt"), status=2)
        self.assertRegex(error, r"out\.txt:\d+: is not of this scan, whose patch at row 3, column 1 is another one")
        with open(self.path("out.txt"), "rb") as file:
            self.assertEqual(file.read(), expected)

    def test_a_full_disk_ends_the_scan_with_the_rows_that_fit(self):
        limit = 9000  # bytes: two rows
        scan, client = self.start_scan("--output", self.path("out.txt"), stderr=-1, preexec_fn=lambda: (
            resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))))
        _, error = scan.communicate()
        self.assertEqual(scan.returncode, 1)
        self.assertIn("out.txt: ", error)
        self.assertEqual(len(read_measurements(self.path("out.txt"))), 20)
        self.assert_device_is_free(client)

    def test_a_closed_pipe_ends_the_scan(self):
        reader, writer = os.pipe()
        scan, client = self.start_scan("--json", "--output", self.path("out.txt"), stdout=writer, stderr=-1)
        os.close(writer)
        self.wait_for_rows(1)
        os.close(reader)
        _, error = scan.communicate()
        self.assertEqual(scan.returncode, 1)
        self.assertIn("standard output: Broken pipe", error)
        self.assert_device_is_free(client)

    def test_a_table_that_is_taken_away_ends_the_scan(self):
        scan, _ = self.start_scan("--output", self.path("out.txt"), stderr=-1)
        self.wait_for_rows(1)
        os.remove(os.path.join(self.hardware, "usb:table.plist"))
        _, error = scan.communicate()
        self.assertEqual(scan.returncode, 1)
        # Whoever notices it first: the service, or the worker whose call fails.
        self.assertRegex(error, "the device went away|The table does not answer")

    def test_a_device_that_dies_leaves_the_rows_before(self):
        scan, _ = self.start_scan("--output", self.path("out.txt"), stderr=-1)
        self.wait_for_rows(1)
        os.kill(self.plugin_processes()[0], signal.SIGKILL)
        _, error = scan.communicate()
        self.assertEqual(scan.returncode, 1)
        self.assertIn("the device went away", error)
        self.assertGreaterEqual(len(read_measurements(self.path("out.txt"))), 10)


class MisplacedChartTest(ToolsTest):
    """A chart that does not lie as its layout says is noticed with the first row."""

    def scan(self, chart, place, *options, time_scale="0", status=0):
        """Scans a chart on which the cells hold what the layout has at another place."""
        printed = Chart(chart.rows, chart.columns)
        for cell in printed.spectra:
            printed.spectra[cell] = chart.spectra.get(place(*cell), [0.9] * 36)
        layout = self.write_chart(chart)
        return self.tablectl("--simulated", self.write_chart(printed, "printed.txt"), "scan", layout, "--time-scale",
                             time_scale, "--output", self.path("out.txt"), *options, status=status)

    def test_what_fits_better_is_told(self):
        chart = Chart(6, 6)
        for place, where in (
                (lambda row, column: (5 - row, 5 - column), "of the chart turned by 180 degrees"),
                (lambda row, column: (row, 5 - column), "of the chart mirrored from left to right"),
                (lambda row, column: (5 - column, row), "of the chart turned by 90 degrees clockwise"),
                (lambda row, column: (row + 4, column), "of row 4"),
                (lambda row, column: (row, column - 1), "1 column further left"),
                (lambda row, column: (row + 1, column + 2), "of row 1, 2 columns further right")):
            _, error = self.scan(chart, place)
            self.assertRegex(error, rf"warning: .* row 0 has the colours {where} \(mean CIEDE2000 0\.00\), not its own")
        self.assertEqual(len(read_measurements(self.path("out.txt"))), 36)

    def test_a_print_that_is_merely_off_is_none(self):
        chart = Chart(4, 6)
        paler = Chart(4, 6)
        for cell, spectrum in paler.spectra.items():
            paler.spectra[cell] = [0.8 * value + 0.15 for value in spectrum]
        layout = self.write_chart(chart)
        self.tablectl("--simulated", self.write_chart(paler, "printed.txt"), "scan", layout, "--time-scale", "0",
                      "--output", self.path("out.txt"), "--strict")

    def test_strictly_it_is_an_error(self):
        output, error = self.scan(Chart(6, 6), lambda row, column: (5 - row, 5 - column), "--strict", "--report",
                                  self.path("report.html"), time_scale="1", status=1)
        self.assertIn("tablectl: the chart does not lie as the layout says", error)
        self.assertLess(len(read_measurements(self.path("out.txt"))), 36)


class PictureTest(ToolsTest):
    """The chart on a colour terminal, as it fills."""

    LEVELS = ((0.9, 0.04, 0.5), (0.02, 0.7, 0.2), (None, 0.3, 0.6))

    def scan(self, columns, *options, **environment):
        chart = Chart(3, 3, last=2)
        for row, column in chart.spectra:
            chart.spectra[row, column] = [self.LEVELS[row][column]] * 36
        layout = self.write_chart(chart)
        environment = {"TERM": "xterm-256color", "COLORTERM": "truecolor"} | environment
        process, terminal = self.start_on_terminal(columns, "--simulated", layout, "scan", layout, "--time-scale", "0",
                                                   "--output", self.path("out.txt"), *options, environment=environment)
        terminal.wait_for("3 of 3 rows")
        self.assertEqual(process.wait(60), 0)
        return terminal.shown

    def pixels(self, line):
        """The upper and the lower half of each column: a grey level, or nothing."""
        ink = paper = None
        pixels = []
        for layer, level, character in re.findall("\033\\[(?:([34])8;2;(\\d+);\\d+;\\d+)?m|([ \u2580\u2584\u00b7])", line):
            if character:
                pixels.append({"\u2580": (ink, paper), "\u2584": (paper, ink)}.get(character, (paper, paper)))
            elif layer == "3":
                ink = int(level)
            else:
                paper, ink = (int(level), ink) if layer else (None, None)
        return pixels

    def test_it_shows_what_was_measured(self):
        """On a small terminal too: three half lines to a patch."""
        shown = self.scan(12)
        *_, picture = re.split("\033\\[5A", shown)
        lines = [self.pixels(line) for line in picture.split("\n")[:5]]
        self.assertEqual({len(line) for line in lines}, {9})
        halves = [[pixel[half] for pixel in line] for line in lines for half in (0, 1)]
        for y, half in enumerate(halves[:9]):
            for x, level in enumerate(half):
                reflectance = self.LEVELS[y // 3][x // 3]
                if reflectance is None:
                    self.assertIsNone(level)
                else:
                    self.assertAlmostEqual(level, 255 * (1.055 * reflectance ** (1 / 2.4) - 0.055), delta=1.5)
        self.assertIn("\u00b7", shown)  # before that

    def test_it_is_left_out(self):
        for columns, options, environment in ((60, ["--no-picture"], {}), (60, [], {"NO_COLOR": "1"}),
                                              (60, [], {"TERM": "dumb"}), (3, [], {})):
            self.assertNotIn("8;2;", self.scan(columns, *options, **environment))
        self.assertIn("\033[48;5;", self.scan(60, COLORTERM=""))


class AlignTest(ToolsTest):
    """Where a chart lies is found by hand, and measured there."""

    UP, DOWN, RIGHT = "\033OA", "\033[B", "\033[C"

    def setUp(self):
        super().setUp()
        self.printed = Chart(3, 6, last=4, pitch=math.hypot(50, 3) / 5, angle=math.atan2(3, 50), origin=(43.0, 38.1))
        self.layout = self.write_chart(Chart(3, 6, last=4))  # as it was meant to lie
        self.start_service()
        self.attach("usb:table", Chart=self.write_chart(self.printed, "printed.txt"))
        self.client = self.connect()
        self.tablectl("mode", "ScanningReflectance")

    def visor(self):
        return self.tablectl("get", "TaviTIsVisorCoordinate")[0]

    def test_the_corners_that_were_found_are_measured(self):
        aligned = self.path("aligned.txt")
        process, terminal = self.start_on_terminal(47, "align", self.layout, "--output", aligned)
        terminal.wait_for("top left  40.0 40.0")
        self.assertEqual(self.visor(), "yes\n")
        terminal.press(3 * self.RIGHT + 2 * self.UP + "ss" + self.DOWN)  # by 1, then by 0.1
        terminal.wait_for("top left  43.0 38.1")
        terminal.press("ss" + 60 * self.UP + "\r")  # by 10, to nowhere: the head stays, and nothing is taken
        terminal.wait_for("beyond the table")
        terminal.press("ss\r")
        terminal.wait_for("top right  93.0 38.1")  # the chart is taken to have slid
        terminal.press(3 * self.DOWN + "\rb")  # not so fast
        terminal.wait_for("top right  93.0 41.1")
        terminal.press("\r")
        terminal.wait_for("bottom right  91.8 61.1")  # and turned
        terminal.press("\r")
        self.assertEqual(process.wait(60), 0)
        terminal.wait_for("turned by 3.43 degrees, leaning by 0.00, pitch 10.02 by 10.02")
        self.assertLessEqual(max(map(len, re.findall(r"[^\r\n\x1b]*  step [^\r\n\x1b]*", terminal.shown))), 46)
        self.assertEqual(self.visor(), "no\n")
        self.assertEqual(self.client.send("GetDevicePosition", patience=0).message, "0.000000,0.000000")
        self.tablectl("scan", self.layout, "--placement", aligned, "--output", self.path("out.txt"))
        measured = [single(float(reading["SPECTRAL_NM380"])) for reading in read_measurements(self.path("out.txt"))]
        self.assertEqual(measured, [single(spectrum[0]) for spectrum in self.printed.spectra.values()])

    def test_a_target_without_a_place_is_asked_for_it(self):
        with open(self.path("target.txt"), "w") as file:
            file.write(re.sub("CHART_.*\n", "", self.printed.text()))
        arguments = ["align", self.path("target.txt"), "--output", self.path("place.txt")]
        self.assertIn("--grid does", self.tablectl(*arguments, status=2)[1])
        process, terminal = self.start_on_terminal(80, *arguments, "--grid", "3x6+4")
        for corner, typed in (("top left", "43,38.1\n"), ("bottom left", "41.8\n41.8, 58.1\n"), ("bottom right", "91,61\n")):
            terminal.wait_for(f"{corner} cell? X,Y: ")
            terminal.press(typed)
        for stop in ("top left  43.0 38.1", "top right  92.2 41.0", "bottom right  91.0 61.0"):
            terminal.wait_for(stop)
            terminal.press("\r")
        self.assertEqual(process.wait(60), 0)
        with open(self.path("place.txt")) as file:
            self.assertIn('CHART_BOTTOM_LEFT "41.8 58.1"', file.read())

    def test_leaving_leaves_nothing(self):
        before = sorted(os.listdir(self.folder))
        for leave, status in ((lambda: terminal.press("\r" + self.RIGHT + "q"), 1),
                              (lambda: process.send_signal(signal.SIGINT), 128 + signal.SIGINT)):
            process, terminal = self.start_on_terminal(80, "align", self.layout, "--output", self.path("aligned.txt"))
            terminal.wait_for("top left")
            leave()
            self.assertEqual(process.wait(60), status)
            self.assertTrue(termios.tcgetattr(terminal.child)[3] & termios.ECHO)
            self.assertEqual(self.visor(), "no\n")
            self.assertEqual(self.client.send("GetDevicePosition", patience=0).message, "0.000000,0.000000")
        self.assertEqual(sorted(os.listdir(self.folder)), before)
        self.assertIn("needs a terminal", self.tablectl("align", self.layout, status=2)[1])

    def test_a_place_is_read_as_often_as_asked_for(self):
        patch = self.printed.spectra[1, 2]
        x, y = (43 + 2 * 10 - 0.6, 38.1 + 10 + 1.2)
        readings = [json.loads(line) for line in
                    self.tablectl("--json", "spot", str(x), str(y), "--count", "7")[0].splitlines()]
        self.assertEqual(readings.pop(0), {"event": "calibrating"})
        self.assertEqual([reading["spotIndex"] for reading in readings], list(range(7)))
        self.assertEqual({single(reading["spectrum"][35]) for reading in readings}, {single(patch[35])})
        text, _ = self.tablectl("spot", str(x), str(y))
        self.assertRegex(text, "^L\\* {:.2f}  a\\* {:.2f}  b\\* {:.2f}\n$".format(*readings[0]["lab"]))
        _, terminal = self.start_on_terminal(80, "spot", str(x), str(y), environment={"COLORTERM": "truecolor"})
        terminal.wait_for("\033[48;2;")
        self.assertIn("lies outside the table", self.tablectl("spot", "1e5", "0", status=1)[1])


class CalibrationOfOthersTest(ToolsTest):
    def test_a_scan_waits_for_it_and_needs_none_of_its_own(self):
        layout = self.write_chart(Chart(1, 3))
        self.start_service()
        self.attach("usb:table", Chart=layout, Fault="Tavi_Calibrate:1:hang=3600")
        client = self.connect()
        client.exchange("Calibrate")
        client.wait_for(lambda record: record.calibration_status == -1, PATIENCE)
        scan = self.start("tablectl", "--json", "scan", layout, stdout=-1, stderr=-1)
        self.tablectl("simulate", "--fault", "")
        events, error = scan.communicate()
        self.assertEqual((scan.returncode, error), (0, ""))
        self.assertEqual([json.loads(line)["event"] for line in events.splitlines()], ["begin", "row", "done"])


if __name__ == "__main__":
    unittest.main()
