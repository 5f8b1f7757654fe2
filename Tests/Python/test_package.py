"""The package as such: its types, its version, and that it needs nothing but the standard library."""

import ast
import os
import re
import shutil
import subprocess
import sys
import unittest

import vell_device as vell
from support import ROOT

FOLDER = os.path.join(ROOT, "LanguageBindings", "python")


class PackageTest(unittest.TestCase):
    @unittest.skipUnless(shutil.which("mypy"), "mypy is not installed")
    def test_its_types_are_strict(self):
        checked = subprocess.run(["mypy", "--strict", "--cache-dir", os.devnull, "vell_device"], cwd=FOLDER,
                                 capture_output=True, text=True)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)

    def test_the_standard_library_of_python_3_9_is_enough(self):
        for name in os.listdir(os.path.join(FOLDER, "vell_device")):
            if not name.endswith(".py"):
                continue
            with open(os.path.join(FOLDER, "vell_device", name)) as file:
                tree = ast.parse(file.read(), name, feature_version=(3, 9))
            for node in ast.walk(tree):
                modules = [alias.name for alias in node.names] if isinstance(node, ast.Import) else \
                    [node.module] if isinstance(node, ast.ImportFrom) and not node.level else []
                for module in modules:
                    self.assertIn(module.split(".")[0], sys.stdlib_module_names, name)

    def test_its_version_is_the_projects(self):
        for file, form in (("CMakeLists.txt", r"VERSION ([\d.]+) LANGUAGES"),
                           ("LanguageBindings/python/pyproject.toml", r'(?m)^version = "([\d.]+)"')):
            with open(os.path.join(ROOT, file)) as text:
                self.assertEqual(re.search(form, text.read()).group(1), vell.__version__)


if __name__ == "__main__":
    unittest.main()
