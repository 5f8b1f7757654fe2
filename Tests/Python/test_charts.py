"""Layouts, measurements and colorimetry of the Python package, against the files and the figures of tablectl."""

import json
import os
import random
import re
import struct
import unittest

import vell_device as vell
from package import PackageTest
from support import Chart
from vell_device import cgats, colorimetry
from vell_device.procedures import SpotLog

LAYOUT = '''CGATS.17\r
ORIGINATOR "a ""maker"" of charts"
KEYWORD "CHART_ROWS"
CHART_ROWS 2
CHART_COLUMNS "2" # a comment
CHART_LAST_ROW_COLUMNS 1
CHART_TOP_LEFT "40 40"
CHART_BOTTOM_LEFT "40 50.5"
CHART_BOTTOM_RIGHT "+50 5.05e1"
LGOROWLENGTH 2
NUMBER_OF_FIELDS 6
BEGIN_DATA_FORMAT
ROW COLUMN SAMPLE_ID CMYK_C SAMPLE_NAME XYZ_X
END_DATA_FORMAT
NUMBER_OF_SETS 3
BEGIN_DATA
1 1 C1 010.00 "deep # red" 1
0 1 "B ""1""" 1e2 "" 2
0 0 A1 0 plain#1 3
END_DATA
'''


class LayoutTest(unittest.TestCase):
    def test_a_layout_is_kept_to_the_character(self):
        layout = vell.Layout.parse(LAYOUT)
        for layout in (layout, vell.Layout.parse(layout.text())):
            self.assertEqual((layout.rows, layout.columns, layout.last_row_columns), (2, 2, 1))
            self.assertEqual(layout.bottom_right, vell.Point(50, 50.5))
            self.assertEqual(layout.keywords, {"ORIGINATOR": 'a "maker" of charts', "LGOROWLENGTH": "2"})
            self.assertEqual([(patch.sample_id, patch.row, patch.column) for patch in layout.patches],
                             [("A1", 0, 0), ('B "1"', 0, 1), ("C1", 1, 1)])
            self.assertIsNone(layout.patches[0].spectrum)
            for line in ('"B ""1""" 0 1 1e2 ""', 'A1 0 0 0 plain#1', 'C1 1 1 010.00 "deep # red"'):
                self.assertIn(line + "\n", layout.text())
        self.assertIsNone(layout.patch_at(1, 0))

    def test_grid_corners_and_cells_may_come_from_elsewhere(self):
        text = re.sub(r"(?m)^CHART_.*\n", "", LAYOUT).replace("ROW COLUMN SAMPLE_ID", "A B SAMPLE_ID")
        layout = vell.Layout.parse(text, grid=(2, 2, 1), corners=((0, 0), (0, 9), (9, 9)))
        self.assertEqual([(patch.sample_id, patch.row, patch.column) for patch in layout.patches],
                         [("C1", 0, 0), ('B "1"', 0, 1), ("A1", 1, 1)])
        with self.assertRaisesRegex(vell.FileError, "layout: the keyword CHART_ROWS is missing"):
            vell.Layout.parse(text)

    def test_spectra_in_percent_are_factors(self):
        text = Chart(1, 2).text().replace("SPECTRAL_NM", "SPEC_")
        percent = re.sub(r" 0\.(\d\d)(\d*)\b", r" \1.\g<2>0", text)
        for one, other in zip(vell.Layout.parse(text).patches, vell.Layout.parse(percent).patches):
            for value, factor in zip(one.spectrum, other.spectrum):
                self.assertAlmostEqual(value, factor)

    def test_what_is_wrong_is_said_with_its_line(self):
        for old, new, problem in (("CGATS", "CATS", "1: is no CGATS file.*"),
                                  ("ROWS 2", "ROWS many", "4: CHART_ROWS is no whole number: \"many\""),
                                  ('"40 40"', '"40 nan"', "7: no finite number: \"nan\""),
                                  ("FIELDS 6", "FIELDS 7", "11: NUMBER_OF_FIELDS does not match the 6 fields.*"),
                                  ("0 1 \"B", "1 1 \"B", "18: a second patch at row 1, column 1"),
                                  ("A1 0 p", "A1 p", "19: the set has 5 fields instead of 6"),
                                  ('red"', "red", "17: a quoted text is not closed, or text follows it"),
                                  ("END_DATA\n", "", " ends without END_DATA"),
                                  ("SETS 3", "SETS 4", "20: NUMBER_OF_SETS is 4, but there are 3 sets"),
                                  ("COLUMNS 1", "COLUMNS 2", r" no patch.* row 1, column 0"),
                                  ('"40 50.5"', '"40 40"', " the top left and the bottom left corner are one point")):
            text = LAYOUT[::-1].replace(old[::-1], new[::-1], 1)[::-1]  # the last one
            self.assertNotEqual(text, LAYOUT)
            with self.assertRaisesRegex(vell.FileError, rf"^chart\.txt:{problem}$", msg=new):
                vell.Layout.parse(text, "chart.txt")

    def test_a_text_that_reads_back_is_the_shortest(self):
        dice = random.Random(1)
        bits = [dice.getrandbits(32) for _ in range(2000)] + [1, 0x7F7FFFFF, 0x00800000]
        for (value,) in (struct.unpack("f", struct.pack("I", bit)) for bit in bits):
            if abs(value) < 4e38:
                text = cgats.shortest(value)
                self.assertEqual(cgats.single([float(text)]), (value,))
        self.assertEqual([cgats.shortest(value) for value in (0.1, 1 / 3, 100, 1e-7)],
                         ["0.1", "0.33333334", "100", "1e-07"])


class ColorTest(PackageTest):
    def test_the_figures_of_tablectl(self):
        """CIELAB of every reading, CIEDE2000 of every patch, and the file as a whole."""
        dice = random.Random(3)
        chart, printed = Chart(4, 9), Chart(4, 9)
        for spectra in (chart.spectra, printed.spectra):
            for cell in spectra:
                level, slope = dice.choice((0.002, 0.05, 0.3, 0.8)), dice.uniform(-1, 1)
                spectra[cell] = [round(level * (1 + slope * (i / 35 - 0.5)) + 0.01 * dice.random(), 4)
                                 for i in range(36)]
        layout = self.write_chart(chart)
        self.tablectl("--simulated", self.write_chart(printed, "table.txt"), "scan", layout, "--time-scale", "0",
                      "--output", self.path("out.txt"), "--report", self.path("report.html"))
        measurement = vell.Measurement.read(self.path("out.txt"))
        self.assertEqual(len(measurement.readings), 36)
        for reading in measurement.readings:
            for own, instruments in zip(colorimetry.lab(reading.spectrum), reading.lab):
                self.assertAlmostEqual(own, instruments, places=4)
        with open(self.path("report.html")) as file:
            data = json.loads(re.search(r'id="data">(.*?)</script>', file.read(), re.S).group(1))
        references = {(patch.row, patch.column): patch.lab for patch in vell.Layout.read(layout).patches}
        for reading, patch in zip(measurement.readings, data["patches"]):
            difference = colorimetry.delta_e_2000(references[reading.row, reading.column], reading.lab)
            self.assertAlmostEqual(difference, patch["deltaE"], places=4)
        measurement.write(self.path("copy.txt"))
        self.assertEqual(vell.Measurement.read(self.path("copy.txt")).readings, measurement.readings)

    def test_hues_on_either_side_of_0_and_colours_without_hue(self):
        """Pairs 7, 9, 13, 16 and 25 of Sharma, Wu and Dalal's test data."""
        for first, second, difference in (((50, 0, 0), (50, -1, 2), 2.3669), ((50, 2.49, -0.001), (50, -2.49, 0.0009), 7.1792),
                                          ((50, -0.001, 2.49), (50, 0.0009, -2.49), 4.8045),
                                          ((50, 2.5, 0), (50, 0, -2.5), 4.3065),
                                          ((60.2574, -34.0099, 36.2677), (60.4626, -34.1751, 39.4387), 1.2644)):
            for pair in ((first, second), (second, first)):
                self.assertAlmostEqual(colorimetry.delta_e_2000(*(vell.Lab(*lab) for lab in pair)), difference, places=4)


class SpotLogTest(PackageTest):
    def test_only_the_workers_words_count(self):
        """The main thread's lines may quote any client's command."""
        def line(thread, text):
            return f"2026-01-02 03:04:05.678 INFO [1:{thread}] {text}\n"

        row = "TaviIODeviceService::advancedMeasure - measuring row %d..."
        by_spots = "Error scanning, trying to scan using spot"
        path = self.path("1.log")
        with open(path, "w") as file:
            file.write(line(2, row % 0) + line(2, by_spots))
        log = SpotLog(self.folder, "elsewhere/1.log")
        with open(path, "a") as file:
            file.write(line(2, row % 1) + line(1, by_spots) + line(2, row % 2) + line(1, "[1:2] " + by_spots)
                       + line(2, row % 3) + line(2, by_spots) + line(2, row % 4))
            file.flush()
            self.assertEqual([log.was_read_by_spots(index) for index in range(5)], [None, False, False, True, False])
            os.rename(path, path + ".1")
            with open(path, "w") as following:
                following.write(line(2, by_spots))
            self.assertTrue(log.was_read_by_spots(4))
        log.close()
        os.remove(path)
        os.mkfifo(path)
        self.assertIsNone(SpotLog(self.folder, "1.log").was_read_by_spots(0))


if __name__ == "__main__":
    unittest.main()
