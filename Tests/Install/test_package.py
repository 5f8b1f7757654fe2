"""The Debian package: what it depends on, and that what is in it runs."""

import glob
import os
import shutil
import subprocess
import unittest

from support import ToolsTest, read_measurements

MISSING = [tool for tool in ("apt", "dpkg-deb", "dpkg-shlibdeps", "file") if not shutil.which(tool)]


@unittest.skipIf(MISSING, f"not installed: {' '.join(MISSING)}")
class PackageTest(ToolsTest):
    def test_the_package(self):
        os.mkdir(self.path("build"))
        os.symlink(os.environ["BUILD_FOLDER"], self.path("build/release"))
        self.run_shown("README.md", "cpack", self.folder,
                       PATH=os.path.dirname(os.environ["CPACK"]) + ":" + self.environment["PATH"])
        package, = glob.glob(self.path("*.deb"))
        field = lambda name: subprocess.check_output(["dpkg-deb", "-f", package, name], text=True).strip()
        self.assertEqual(field("Package"), "tavi-io")
        for library in ("libc6", "libplist", "libstdc++6"):
            self.assertIn(library, field("Depends"))

        # As the README tells, but for the last step: apt plans the installation and does not carry it out.
        with open(self.path("apt.conf"), "w") as configuration:
            configuration.write('APT::Get::Simulate "true";\n')
        planned = self.run_shown("README.md", "apt install", self.folder, APT_CONFIG=self.path("apt.conf"))
        self.assertRegex(planned, r"(?m)^Inst tavi-io ")

        root = self.path("root")
        subprocess.run(["dpkg-deb", "-x", package, root], check=True)
        self.assertEqual(os.listdir(root), ["usr"])
        with open(os.path.join(root, "usr/lib/systemd/user/vell-service.service")) as unit:
            self.assertIn("ExecStart=/usr/bin/vell-service\n", unit.readlines())
        documentation = os.path.join(root, "usr/share/doc/tavi-io")
        self.assertLessEqual({"copyright", "changelog.gz", "README.md"}, set(os.listdir(documentation)))
        self.assertTrue(os.path.exists(os.path.join(root, "usr/share/man/man1/tablectl.1.gz")))

        self.programs = os.path.join(root, "usr/bin")
        chart = os.path.join(documentation, "Examples/print-target.txt")
        self.tablectl("--simulated", chart, "scan", chart, "--rows", "0", "--time-scale", "0",
                      "--output", self.path("out.txt"))
        self.assertEqual(len(read_measurements(self.path("out.txt"))), 21)
        package = os.path.join(root, "usr/lib/python3/dist-packages")
        self.assertEqual(self.measured_in_python(package, os.path.dirname(chart)), "11 rows\n")


if __name__ == "__main__":
    unittest.main()
