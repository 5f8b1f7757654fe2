"""What the README says about installing is so, and an installed tree works wherever it has been moved to."""

import os
import re
import shutil
import subprocess
import unittest

from support import ToolsTest, read_measurements

BUILD = os.environ["BUILD_FOLDER"]


class InstallTest(ToolsTest):
    def setUp(self):
        """Installs as the README tells, below a home folder that is then moved."""
        super().setUp()
        self.environment["PATH"] = os.path.dirname(os.environ["CMAKE"]) + ":" + self.environment["PATH"]
        os.makedirs(self.path("home/build"))
        os.symlink(BUILD, self.path("home/build/release"))
        home = self.path("home")
        self.run_shown("README.md", "cmake --install", home, HOME=home)
        with open(self.path("home/tavi-io/lib/systemd/user/vell-service.service")) as unit:
            self.assertIn(f"ExecStart={home}/tavi-io/bin/vell-service\n", unit.readlines())
        self.home = self.path("moved-home")
        os.rename(home, self.home)
        self.prefix = os.path.join(self.home, "tavi-io")
        self.programs = os.path.join(self.prefix, "bin")
        self.documentation = os.path.join(self.prefix, "share", "doc", "tavi-io")

    def project_files_of(self, process):
        """The files of this project that a process has loaded."""
        with open(f"/proc/{process}/maps") as maps:
            files = {line.split(maxsplit=5)[5].rstrip("\n") for line in maps if "/" in line}
        return {file for file in files if file.startswith((BUILD, self.folder))} - {os.environ["FAST_SLEEP"]}

    def elf_files(self, folder):
        for parent, _, names in os.walk(folder):
            for path in (os.path.join(parent, name) for name in names):
                if not os.path.islink(path):
                    with open(path, "rb") as file:
                        if file.read(4) == b"\x7fELF":
                            yield path

    def test_files_are_searched_for_beside_the_program_only(self):
        installed = list(self.elf_files(self.prefix))
        names = set(map(os.path.basename, installed))
        self.assertIn("tablectl", names)
        built = [file for file in self.elf_files(BUILD) if os.path.basename(file) in names]
        self.assertGreaterEqual(len(built), len(installed))
        for file in built + installed:
            dynamic = subprocess.check_output(["readelf", "-dW", file], text=True, stderr=subprocess.DEVNULL)
            for path in re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", dynamic):
                self.assertRegex(path, r"^\$ORIGIN(/[^:]*)?(:\$ORIGIN(/[^:]*)?)*$", file)

    @unittest.skipIf(not shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_the_unit_is_right_and_closed(self):
        unit = self.path("vell-service.service")
        with open(os.path.join(self.prefix, "lib/systemd/user/vell-service.service")) as installed, \
                open(unit, "w") as moved:
            moved.write(re.sub("(?m)^ExecStart=.*$", f"ExecStart={self.programs}/vell-service", installed.read()))
        verified = subprocess.run(["systemd-analyze", "--user", "verify", unit], capture_output=True, text=True,
                                  env=self.environment | {"XDG_RUNTIME_DIR": self.folder})
        self.assertEqual((verified.returncode, verified.stderr), (0, ""))
        subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=29", unit], check=True,
                       stdout=subprocess.DEVNULL)

    def test_a_client_is_built_and_served(self):
        service = self.start_service()
        self.tablectl("simulate", "--attach", "usb:table-1", "--time-scale", "0")
        # The example that was installed, against the libraries that were.
        self.run_shown("README.md", "cmake -S|cmake --build build/client", self.documentation, HOME=self.home)
        output = self.run_shown("README.md", "build/client/table-position", self.documentation)
        self.assertEqual(output, "usb:table-1 100.000000,150.000000\n")
        client = os.path.join(self.documentation, "build", "client", "table-position")
        refused = subprocess.run([client, "9999", "7"], env=self.environment, capture_output=True, text=True)
        self.assertEqual((refused.returncode, refused.stdout), (1, ""))
        self.assertIn("SetDevicePosition: 36: ", refused.stderr)
        # Nothing came from where it was built.
        loaded = self.project_files_of(service.pid) | self.project_files_of(self.plugin_processes()[0])
        self.assertEqual([file for file in loaded if not file.startswith(self.prefix + "/")], [])
        self.assertLessEqual({"vell-service", "vell-plugin-host", "TaviIO"}, set(map(os.path.basename, loaded)))

    def test_a_header_stands_alone(self):
        include = os.path.join(self.prefix, "include", "vell")
        headers = [os.path.relpath(os.path.join(folder, file), include)
                   for folder, _, files in os.walk(include) for file in files]
        self.assertIn("VellDevice/VellDevice.h", headers)
        for header in headers:
            subprocess.run([os.environ["CXX"], "-std=c++11", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                            "-fsyntax-only", "-I", include, "-x", "c++", "-"],
                           input=f"#include <{header}>\n", text=True, check=True)

    def test_it_measures_the_chart_that_comes_with_it(self):
        chart = os.path.join(self.documentation, "Examples", "print-target.txt")
        self.tablectl("--simulated", chart, "--record", self.path("session.jsonl"), "scan", chart, "--rows", "0",
                      "--time-scale", "0", "--output", self.path("out.txt"))
        self.assertIn("Rows: 1, ", self.tablectl("recording", self.path("session.jsonl"))[0])
        self.assertEqual(len(read_measurements(self.path("out.txt"))), 21)

    def test_the_python_package_finds_the_programs_beside_it(self):
        package = os.path.join(self.prefix, "lib", "python3", "dist-packages")
        self.assertEqual(self.measured_in_python(package, os.path.join(self.documentation, "Examples")), "11 rows\n")


if __name__ == "__main__":
    unittest.main()
