"""Every example of docs/python.md does what is shown below it."""

import os
import re
import unittest

from package import PackageTest
from support import PATIENCE, ROOT, Chart


class GuideTest(PackageTest):
    def test_the_examples(self):
        with open(os.path.join(ROOT, "docs", "python.md")) as file:
            examples = re.findall(r"^```python\n(.*?)^```\n\n```text\n(.*?)^```$", file.read(), re.M | re.S)
        self.assertGreater(len(examples), 5)
        self.write_chart(Chart(2, 4))
        self.start_service()
        self.attach("usb:table-1", Chart=self.path("chart.txt"))
        self.connect()
        for code, output in examples:
            with self.subTest(code):
                ran = self.start_python("-c", code)
                written, error = ran.communicate(timeout=PATIENCE)
                self.assertEqual((written, ran.returncode), (output, 0), error)

    def test_every_example_has_its_output(self):
        with open(os.path.join(ROOT, "docs", "python.md")) as file:
            text = file.read()
        self.assertEqual(text.count("```python\n"), text.count("```\n\n```text\n"))


if __name__ == "__main__":
    unittest.main()
