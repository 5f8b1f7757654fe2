"""What the tests of the Python package share."""

import os
import subprocess
import sys
import unittest.mock

from support import BIN, ToolsTest


class PackageTest(ToolsTest):
    """A virtual table of this process finds the service on the path, in the environment of the other programs."""

    def setUp(self):
        super().setUp()
        self.environment["PATH"] = BIN + ":" + self.environment["PATH"]
        changes = {name: self.environment[name] for name in ("PATH", "LD_PRELOAD", "TMPDIR", "ASAN_OPTIONS",
                                                             "VELL_RUNTIME_DIR")}
        patch = unittest.mock.patch.dict(os.environ, changes)
        patch.start()
        self.addCleanup(patch.stop)
        temporary = unittest.mock.patch("tempfile.tempdir", self.folder)
        temporary.start()
        self.addCleanup(temporary.stop)

    def start_python(self, *arguments):
        """A Python program of its own."""
        environment = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
        process = subprocess.Popen([sys.executable, "-W", "error", *arguments], cwd=self.folder, env=environment,
                                   text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end, process)
        return process
