"""From a target to files that other programs read: lcms2 the measurements, an XML parser CxF3."""

import csv
import ctypes
import ctypes.util
import os
import unittest
import xml.etree.ElementTree

from support import BIN, ROOT, Chart, ToolsTest, read_measurements

LCMS = ctypes.util.find_library("lcms2")
CXF = "{http://colorexchangeformat.com/CxF3-core}"


class Peer:
    """The CGATS reader of lcms2."""

    def __init__(self, path):
        self.lcms = ctypes.CDLL(LCMS)
        self.lcms.cmsIT8LoadFromFile.restype = ctypes.c_void_p
        self.lcms.cmsIT8GetDataRowCol.restype = ctypes.c_char_p
        self.lcms.cmsIT8GetPropertyDbl.restype = ctypes.c_double
        self.lcms.cmsCIE2000DeltaE.restype = ctypes.c_double
        self.table = ctypes.c_void_p(self.lcms.cmsIT8LoadFromFile(None, path.encode()))
        assert self.table, path

    def cells(self):
        names = ctypes.POINTER(ctypes.c_char_p)()
        columns = self.lcms.cmsIT8EnumDataFormat(self.table, ctypes.byref(names))
        names = [names[column].decode() for column in range(columns)]
        rows = int(self.lcms.cmsIT8GetPropertyDbl(self.table, b"NUMBER_OF_SETS"))
        return [{name: self.lcms.cmsIT8GetDataRowCol(self.table, row, column).decode()
                 for column, name in enumerate(names)} for row in range(rows)]

    def difference(self, one, other):
        labs = [(ctypes.c_double * 3)(*(float(patch[f"LAB_{axis}"]) for axis in "LAB")) for patch in (one, other)]
        number = ctypes.c_double(1)
        return self.lcms.cmsCIE2000DeltaE(labs[0], labs[1], number, number, number)


class FilesTest(ToolsTest):
    def test_the_whole_way(self):
        example = os.path.join(ROOT, "Examples", "print-target.txt")
        with open(example) as file:
            header, data = file.read().split("BEGIN_DATA\n")
        with open(self.path("placed.txt"), "w") as file:
            file.write(header.split("NUMBER_OF_FIELDS")[0])
        sets = [line.split() for line in data.splitlines()[:-1]]
        with open(self.path("target.txt"), "w") as file:
            print("CTI1\nBEGIN_DATA_FORMAT\nSAMPLE_ID CMYK_C CMYK_M CMYK_Y CMYK_K\nEND_DATA_FORMAT", file=file)
            print(f"NUMBER_OF_SETS {len(sets)}\nBEGIN_DATA", file=file)
            for line in sets:
                print(line[0], *line[3:7], file=file)
            print("END_DATA", file=file)
        os.symlink(os.path.join(ROOT, "Examples"), self.path("Examples"))
        self.start_service()
        self.attach("usb:table", Chart=example, Noise=0.0005)
        self.connect()
        told = self.run_shown("docs/from-chart-to-profile.md", "tablectl", self.folder,
                              PATH=BIN + ":" + self.environment["PATH"])
        first, second, mean = (read_measurements(self.path(name)) for name in ("first.txt", "second.txt", "mean.txt"))
        self.assertEqual([[patch[f"CMYK_{ink}"] for ink in "CMYK"] for patch in mean], [line[3:7] for line in sets])
        for one, other, both in zip(first, second, mean, strict=True):
            middle = (float(one["SPECTRAL_NM550"]) + float(other["SPECTRAL_NM550"])) / 2
            self.assertAlmostEqual(float(both["SPECTRAL_NM550"]), middle, places=6)
        with open(self.path("mean.csv")) as file:
            self.assertEqual([patch["LAB_A"] for patch in csv.DictReader(file)], [patch["LAB_A"] for patch in mean])
        objects = list(xml.etree.ElementTree.parse(self.path("mean.cxf")).getroot().iter(CXF + "Object"))
        for element, patch in zip(objects, mean, strict=True):
            self.assertEqual(element.get("Name"), patch["SAMPLE_ID"])
            self.assertEqual(element.find(f".//{CXF}Magenta").text, patch["CMYK_M"])
            self.assertEqual(element.find(f".//{CXF}ReflectanceSpectrum").text.split(),
                             [patch[f"SPECTRAL_NM{band}"] for band in range(380, 740, 10)])
        with open(self.path("copy.txt")) as copy, open(self.path("second.txt")) as original:
            self.assertEqual(*([line.split() for line in file] for file in (copy, original)))
        if not LCMS:
            self.skipTest("lcms2 is not installed")
        for name, patches in (("first.txt", first), ("mean.txt", mean), ("copy.txt", second)):
            self.assertEqual(Peer(self.path(name)).cells(), patches)
        peer = Peer(self.path("first.txt"))
        differences = [peer.difference(*pair) for pair in zip(first, second)]
        self.assertIn(f"\nmean             {sum(differences) / len(differences):.2f}\n", told)
        self.assertIn(f"\nmaximum          {max(differences):.2f}\n", told)

    def test_what_makes_no_sense_is_refused_and_nothing_is_replaced(self):
        layout = self.write_chart(Chart(2, 3))
        good = self.path("good.txt")
        self.tablectl("--simulated", layout, "scan", layout, "--time-scale", "0", "--output", good)
        with open(good, "rb") as file:
            whole = file.read()
        for name, content in (("empty", b""), ("binary", bytes(range(256))),
                              ("other", whole.replace(b'"P1-1"', b'"X"')), ("M1", whole.replace(b'"M0"', b'"M1"'))):
            with open(self.path(name), "wb") as file:
                file.write(content)
        for arguments, status in ((["average", good, self.path("empty")], 2), (["average", good, self.path("other")], 2),
                                  (["average", self.path("binary")], 2), (["average", self.path("M1")], 2),
                                  (["report", self.path("empty")], 2), (["convert", self.path("binary")], 2)):
            self.tablectl(*arguments, "--output", self.path("new.txt"), status=status)
            self.assertFalse(os.path.exists(self.path("new.txt")), arguments)
        self.tablectl("convert", good, "--output", good, status=2)
        self.tablectl("average", good, "--output", good, status=2)
        told, _ = self.tablectl("compare", good, self.path("other"), "--limit", "0,0")
        self.assertIn('1 only in ' + self.path("other") + ': "X"', told)
        with open(self.path("cut"), "wb") as file:
            file.write(whole[:-400])
        _, error = self.tablectl("convert", self.path("cut"), "--output", self.path("new.csv"))
        self.assertIn("cut: is cut short", error)
        with open(good, "rb") as file:
            self.assertEqual(file.read(), whole)


if __name__ == "__main__":
    unittest.main()
