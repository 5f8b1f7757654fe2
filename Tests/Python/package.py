"""What the tests of the Python package share."""

import os
import unittest.mock

import vell_device as vell
from support import BIN, ToolsTest


class PackageTest(ToolsTest):
    """The package's own programs find the service on the path, and have the environment of the others."""

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

    def service(self):
        service = vell.Service(self.runtime)
        self.addCleanup(service.close)
        return service

    def table(self, which=None):
        return self.service().table(which, timeout=60)
