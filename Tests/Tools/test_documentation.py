"""What the documentation says is what the programs do."""

import glob
import os
import plistlib
import re
import subprocess
import unittest

from support import BIN, ROOT, RawClient, Terminal, ToolsTest, read_measurements, wait_until

# What is run, and where: in the tours below, in Tests/Install, and by run-tests itself.
RUN_HERE = r"tablectl |python3 |PYTHONPATH=|sed |vell-service (?:--record \S+ )?&"
RUN_IN_INSTALL = r"cmake --install |cpack |apt install |cmake -S |cmake --build build/client|build/client/"
RUN_IN_SCRIPTS = r"\./run-|cmake --preset |cmake --build --preset |ctest --preset "


class DocumentationTest(ToolsTest):
    def read(self, *name):
        with open(os.path.join(ROOT, *name)) as file:
            return file.read()

    def test_manual_and_completion_know_every_command_and_option(self):
        manual = self.read("Tools", "data", "tablectl.1").replace("Fl -", "--")
        completion = self.read("Tools", "data", "tablectl.bash")
        usage = self.tablectl("--help")[0]
        commands = re.findall(r"^  (\w+)  ", usage[usage.index("Look:"):], re.M)
        self.assertGreater(len(commands), 10)
        for command in commands:
            self.assertRegex(manual, rf"\.It Cm {command}\b")
            self.assertRegex(completion, rf"\b{command}\b")
            usage += self.tablectl(command, "--help")[0]
        for option in set(re.findall(r"--[a-z-]+", usage)) - {"--help", "--version"}:
            self.assertIn(option, manual)
            self.assertIn(option, completion)
        service = subprocess.run([os.path.join(BIN, "vell-service"), "--help"], capture_output=True, text=True).stdout
        for option in set(re.findall(r"--[a-z-]+", service)) - {"--help", "--version"}:
            self.assertIn(option, self.read("Tools", "data", "vell-service.1").replace("Fl -", "--"))

    def completed(self, line, before=""):
        script = before + """source "$0"; COMP_LINE="$1"; COMP_POINT=${#1}; _tablectl; echo "${COMPREPLY[*]}" """
        completed = subprocess.run(["bash", "-c", script, os.path.join(ROOT, "Tools/data/tablectl.bash"), line],
                                   env=self.environment | {"PATH": BIN + ":" + self.environment["PATH"]},
                                   cwd=self.folder, capture_output=True, text=True, check=True)
        self.assertEqual(completed.stderr, "", line)
        return completed.stdout.strip()

    def test_the_completion_completes(self):
        self.start_service()
        self.attach("usb:table-1")
        self.connect()
        open(self.path("layout.txt"), "w").close()
        for line, completions in {"tablectl s": "status set send scan spot simulate", "tablectl --dev": "--device",
                                  "tablectl --device ": "usb:table-1", "tablectl --device usb:t": "table-1",
                                  "tablectl scan --repo": "--report", "tablectl scan lay": "layout.txt",
                                  "tablectl --simulated scan sc": "scan", "tablectl get Mod": "Modes Mode",
                                  "tablectl set Bee": "Beep", "tablectl --runtime-dir /nowhere set Bee": "",
                                  "tablectl --device usb:table-1 set Bee": "Beep", "tablectl --device none set Bee": "",
                                  "tablectl set Beep Bee": "", "tablectl send Go": "GoHome",
                                  "tablectl mode Si": "SingleReflectance", "tablectl simulate --table ": "on off",
                                  "tablectl status ": "", "tablectl status --w": "--watch"}.items():
            self.assertEqual(self.completed(line), completions, line)

    def test_completion_runs_nothing_that_a_device_is_called(self):
        """In a shell that a user types into: a path is completed, quoted, and names its device."""
        path = "usb:$(touch pwned) `touch pwned`;touch pwned;*"
        self.start_service()
        self.attach(path)
        self.connect()
        # Under a name that can be typed, wherever the sources are.
        os.symlink(os.path.join(ROOT, "Tools/data/tablectl.bash"), self.path("completion.bash"))
        terminal = Terminal(200)
        self.addCleanup(terminal.close)
        shell = subprocess.Popen(["bash", "--norc", "--noprofile", "-i"], stdin=terminal.child, stdout=terminal.child,
                                 stderr=terminal.child, cwd=self.folder, start_new_session=True,
                                 env=self.environment | {"PATH": BIN + ":" + self.environment["PATH"], "TERM": "dumb",
                                                         "PS1": "ready> ", "HISTFILE": ""})
        self.addCleanup(shell.wait)
        self.addCleanup(shell.kill)  # one that a user types into does not mind being told to end
        terminal.press("source ./completion.bash\ntablectl --device usb\tget Path\n")
        terminal.wait_for("\n" + path)
        terminal.press("exit\n")
        self.assertEqual(shell.wait(60), 0)
        hostile = "tablectl() { echo 'A$(touch pwned)*: x'; }; "
        for line, name in (("get", "A$(touch pwned)*"), ("set", "A$(touch pwned)*"), ("send", "A$(touch pwned)*: x")):
            self.assertEqual(self.completed(f"tablectl {line} A", hostile), re.sub(r"([^\w:])", r"\\\1", name), line)
        self.assertFalse(os.path.exists(self.path("pwned")))

    def test_no_command_is_shown_that_nothing_runs(self):
        documents = ["README.md", "ARCHITECTURE.md", "Platform/README.md", "Benchmarks/README.md"]
        programs = r"[\w./-]*(?:tablectl|python3?|PYTHONPATH=|vell-|cmake|c(?:test|pack)|ninja|sudo|env|apt|dpkg|sed|\./|build/)"
        ci = self.read(".ci", "run")
        for document in documents + glob.glob("docs/*.md", root_dir=ROOT):
            for line in re.findall(rf"^    ({programs}.*)$", self.read(document), re.M):
                if not re.search(rf"^{re.escape(line)}( |$)", ci, re.M):
                    self.assertRegex(line, rf"^(?:{RUN_HERE}|{RUN_IN_INSTALL}|{RUN_IN_SCRIPTS})", document)

    def run_tour(self, document):
        """The commands that a document shows, with a service in the background."""
        for folder in ("Examples", "LanguageBindings"):
            os.symlink(os.path.join(ROOT, folder), self.path(folder))
        self.start_service()
        self.run_shown(document, "tablectl|python3|PYTHONPATH|sed", self.folder, PATH=BIN + ":" + self.environment["PATH"])

    def test_the_tour_of_the_readme(self):
        self.run_tour("README.md")
        for name, readings in (("out.txt", 223), ("rows.txt", 3 * 21 * 3)):
            self.assertEqual(len(read_measurements(self.path(name))), readings)
        self.assertEqual(self.read(self.path("session.txt")), self.read(self.path("again.txt")))

    def test_the_problems_of_the_virtual_instrument(self):
        self.run_tour("docs/virtual-instrument.md")
        self.assertEqual(len(read_measurements(self.path("out.txt"))), 223)
        self.assertEqual(len(read_measurements(self.path("row.txt"))), 21)
        self.assertEqual(self.read(self.path("session.txt")), self.read(self.path("again.txt")))
        darkest = [min(float(reading["SPECTRAL_NM380"]) for reading in read_measurements(self.path(name)))
                   for name in ("out.txt", "pale-measured.txt")]
        self.assertLess(darkest[0], 0.05)
        self.assertGreater(darkest[1], 0.09)
        log, = glob.glob(os.path.join(self.runtime, "log", "*"))
        with open(log) as file:
            lines = file.read()
        self.assertEqual(re.findall(r"Scanned row 4 .*err: (\d+)", lines)[:3], ["0", "11", "0"])
        self.assertEqual(re.findall(r"Scan Result: (\d+)", lines), ["7"] * 4)

    def test_the_worked_example_of_the_documentation(self):
        with open(os.path.join(ROOT, "docs", "commands.md")) as file:
            blocks = re.findall(r"^    (000000[0-9a-f ]+(?:\n    [0-9a-f ]+)*)$", file.read(), re.M)
        command, response = (bytes.fromhex(block) for block in blocks)
        self.start_service()
        self.attach("usb:table-1")
        path = os.path.join(self.runtime, "4dd967c9.sock")
        wait_until(lambda: os.path.exists(path), "the socket")
        client = RawClient(path)
        self.addCleanup(client.close)
        client.status()
        client.socket.sendall(command)
        while b"Response" not in (frame := client.frame()):
            pass
        # Property-list writers may lay out one dictionary in several ways.
        self.assertEqual(plistlib.loads(frame[4:]), plistlib.loads(response[4:]))
        self.assertEqual(int.from_bytes(response[:4], "big"), len(response) - 4)


if __name__ == "__main__":
    unittest.main()
