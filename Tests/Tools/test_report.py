"""The report of a scan, as a browser shows it."""

import html
import http.server
import json
import os
import queue
import re
import shutil
import subprocess
import threading
import unittest

from support import PATIENCE, Chart, ToolsTest, wait_until

BROWSER = shutil.which("chromium")
AXE = os.path.join(os.path.dirname(__file__), "node_modules", "axe-core", "axe.min.js")
FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync"]

# Runs in the page, after its own script: walks by keyboard, then leaves what it saw in the title.
PROBE = """
<script>
{
window.onerror = (message) => { document.title = message; };
const press = key => document.activeElement.dispatchEvent(new KeyboardEvent("keydown", {key, bubbles: true}));
const picked = () => document.getElementById("picked").textContent;
const seen = {start: picked()};
document.querySelector(".patch[aria-selected=true]").focus();
for (let count = 0; count < 9; count++) { press("ArrowLeft"); press("ArrowUp"); }
press("ArrowRight");
press("ArrowDown");
seen.walked = picked();
seen.focused = document.activeElement.getAttribute("aria-label");
press("End");
seen.end = picked();
document.querySelector("#worst button").click();
seen.chosen = picked();
seen.patches = document.querySelectorAll(".patch").length;
seen.selected = document.querySelectorAll("[aria-selected=true]").length;
seen.unmeasured = document.querySelectorAll("[aria-label$='not measured']").length;
seen.figures = [...document.querySelectorAll(".figure b")].map(figure => figure.textContent);
seen.bars = [...document.querySelectorAll("#histogram rect + text")].length;
seen.lines = document.querySelectorAll("#spectrum polyline").length;
seen.conditions = document.getElementById("conditions").textContent;
seen.order = [...document.querySelectorAll(".patch")].map(patch => patch.getAttribute("aria-label").split(",")[0]);
const isClipped = text => {
  const {x, y, width, height} = text.getBBox(), view = text.ownerSVGElement.viewBox.baseVal;
  return x < view.x || y < view.y || x + width > view.x + view.width || y + height > view.y + view.height;
};
seen.clipped = [...document.querySelectorAll("svg text")].filter(isClipped).map(text => text.textContent);
seen.wide = document.documentElement.scrollWidth > window.innerWidth;
document.title = "seen " + JSON.stringify(seen);
}
</script>
"""

# A window has a least width, a frame has not.
FRAME = """<!DOCTYPE html>
<iframe width="{width}" height="900" srcdoc="{page}" onload="document.title = contentDocument.title"></iframe>
"""


# Watches the page of a running scan: picks a patch once, then notes what each later page shows.
FOLLOWER = """<!DOCTYPE html>
<iframe id="frame" src="report.html" width="900" height="900"></iframe>
<script>
const frame = document.getElementById("frame"), seen = [];
let end;
frame.onload = () => {
  const page = frame.contentDocument;
  if (!seen.length) page.querySelector("[aria-label^='P2-1,']").dispatchEvent(new MouseEvent("click"));
  const isRunning = !page.getElementById("running").hidden;
  seen.push([isRunning, page.getElementById("picked").textContent, page.querySelector(".figure:last-child b").textContent,
             page.activeElement.getAttribute("aria-label")?.slice(0, 5)]);
  clearTimeout(end);
  if (!isRunning) end = setTimeout(() => fetch("seen", {method: "POST", body: JSON.stringify(seen)}), 3000);
};
</script>
"""

# Has the checker look at the page in two widths, and leaves what it finds.
CHECKED = """<!DOCTYPE html>
<script type="module">
const found = {isDark: matchMedia("(prefers-color-scheme: dark)").matches, violations: []};
for (const width of [390, 1400]) {
  const frame = document.createElement("iframe");
  Object.assign(frame, {src: "report.html", width, height: 900});
  document.body.append(frame);
  await new Promise(resolve => frame.onload = resolve);
  const script = frame.contentDocument.createElement("script");
  script.src = "axe.js";
  frame.contentDocument.head.append(script);
  await new Promise(resolve => script.onload = resolve);
  const {violations, passes} = await frame.contentWindow.axe.run();
  found.passes = passes.length;
  found.chart = getComputedStyle(frame.contentDocument.getElementById("chart")).backgroundColor;
  for (const {id, nodes} of violations) found.violations.push([width, id, nodes.map(node => node.html)]);
}
fetch("seen", {method: "POST", body: JSON.stringify(found)});
</script>
"""


class ReportTest(ToolsTest):
    def browse(self, pages, *flags):
        """Serves pages (texts, files, or what gives one) to a browser until the first posts what it has seen."""
        seen = queue.Queue()

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                page = pages.get(self.path)
                if callable(page):
                    page = page()
                if page is not None and os.path.isabs(page):
                    with open(page) as file:
                        page = file.read()
                self.send_response(404 if page is None else 200)
                self.send_header("Content-Type", "text/javascript" if self.path.endswith(".js") else "text/html")
                self.end_headers()
                self.wfile.write((page or "").encode())

            def do_POST(self):
                seen.put(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
                self.send_response(204)
                self.end_headers()

            def log_message(self, *_):
                pass

        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            browser = subprocess.Popen([BROWSER, *FLAGS, *flags, f"--user-data-dir={self.path('browser')}",
                                        "--remote-debugging-port=0", f"http://127.0.0.1:{server.server_port}/"],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            try:
                return seen.get(timeout=PATIENCE)
            finally:
                browser.terminate()
                browser.wait()
                server.shutdown()

    def report(self, chart, on_table, *options):
        layout = self.write_chart(chart)
        self.tablectl("--simulated", self.write_chart(on_table, "table.txt"), "scan", layout, "--time-scale", "0",
                      "--output", self.path("out.txt"), "--report", self.path("report.html"), *options)
        with open(self.path("report.html")) as file:
            return file.read()

    def show(self, page, width=1200):
        """What the browser shows of a page of that width."""
        with open(self.path("probed.html"), "w") as file:
            file.write(FRAME.format(width=width, page=html.escape(page.replace("</body>", PROBE + "</body>"))))
        document = subprocess.run([BROWSER, *FLAGS, f"--user-data-dir={self.path('browser')}",
                                   "--window-size=1280,1000", "--dump-dom", "file://" + self.path("probed.html")],
                                  capture_output=True, text=True, timeout=120).stdout
        title = re.search(r"<title>(.*?)</title>", document).group(1)
        self.assertTrue(title.startswith("seen "), title)
        return json.loads(title.removeprefix("seen ").replace("&amp;", "&"))

    def test_it_needs_nothing_from_elsewhere(self):
        page = self.report(Chart(2, 3), Chart(2, 3))
        self.assertEqual(re.findall(r"\b(?:src|href)=|@import|url\(", page), [])
        self.assertEqual(re.findall(r"https?://[^\"]*", page), ["http://www.w3.org/2000/svg", "http://www.w3.org/1999/xhtml"])
        data = json.loads(re.search(r'id="data">(.*?)</script>', page, re.S).group(1))
        self.assertEqual([round(patch["deltaE"], 4) for patch in data["patches"]], [0] * 6)

    def conditions(self):
        with open(self.path("report.html")) as file:
            data = json.loads(re.search(r'id="data">(.*?)</script>', file.read(), re.S).group(1))
        return dict(data["conditions"]), data["warnings"]

    def test_a_scan_that_failed_says_why(self):
        layout = self.write_chart(Chart(3, 3))
        self.start_service()
        self.attach("usb:table", Chart=layout, Fault="Tavi_Scan:2:throw")
        self.connect()
        self.tablectl("scan", layout, "--report", self.path("report.html"), status=1)
        conditions, warnings = self.conditions()
        self.assertEqual((conditions["Rows measured"], conditions["Rows read by spots"]), ("1 of 3", "none"))
        self.assertRegex(conditions["Ended early"], "^Measure: 14: ")
        self.assertRegex(warnings[-1], "exception: Tavi_Scan")

    def test_a_log_that_tells_nothing_is_no_proof(self):
        self.environment["VELL_LOG_LEVEL"] = "warning"
        chart = Chart(2, 3)
        chart.spectra[1, 1] = chart.spectra[1, 2]
        self.report(chart, chart)
        self.assertEqual(self.conditions()[0]["Rows read by spots"], "not known")

    @unittest.skipUnless(BROWSER, "chromium is not installed")
    def test_it_follows_a_scan_that_goes_on(self):
        report = self.path("report.html")
        layout = self.write_chart(Chart(8, 5))
        self.start_service()
        self.attach("usb:table", Chart=layout)
        self.connect()
        self.tablectl("calibrate")
        self.tablectl("simulate", "--time-scale", "5")  # until the page has been looked at three times
        scan = self.start("tablectl", "scan", layout, "--report", report, stdout=subprocess.DEVNULL, stderr=-1)
        wait_until(lambda: os.path.exists(report), "the report of a scan that has begun")
        looks = iter(range(3))

        def look():
            if next(looks, None) == 2:
                self.tablectl("simulate", "--time-scale", "0")
            return report

        seen = self.browse({"/": FOLLOWER, "/report.html": look})
        self.assertEqual(scan.wait(PATIENCE), 0)
        running, picked, counts, focus = zip(*seen)
        self.assertGreaterEqual(len(seen), 3)
        self.assertEqual(running, (True,) * (len(seen) - 1) + (False,))
        self.assertEqual(set(picked), {"P2-1 (row 2, column 1)"})
        self.assertEqual(set(focus), {"P2-1,"})
        measured = [int(count.split()[0]) for count in counts]
        self.assertEqual((measured, measured[-1]), (sorted(measured), 40))
        self.assertLess(measured[0], 40)

    @unittest.skipUnless(BROWSER, "chromium is not installed")
    @unittest.skipUnless(os.path.exists(AXE), "axe-core is not installed: npm ci in this folder")
    def test_a_checker_of_accessibility_finds_nothing(self):
        chart = Chart(3, 4, last=2)
        chart.spectra[0, 2] = chart.spectra[0, 1]
        self.report(chart, chart, "--rows", "0-1")
        pages = {"/": CHECKED, "/report.html": self.path("report.html"), "/axe.js": AXE}
        for is_dark, flags in ((False, []), (True, ["--blink-settings=preferredColorScheme=0"])):
            found = self.browse(pages, *flags)
            self.assertEqual(found["violations"], [])
            self.assertGreater(found["passes"], 10)
            self.assertEqual((found["isDark"], found["chart"]), (is_dark, "rgb(255, 255, 255)"))

    @unittest.skipUnless(BROWSER, "chromium is not installed")
    def test_it_shows_what_differs(self):
        chart, printed = Chart(3, 4, last=2, angle=0.1), Chart(3, 4, last=2, angle=0.1)
        chart.spectra[1, 2] = [0.04] * 36
        printed.spectra[1, 2] = [0.08] * 36
        page = self.report(chart, printed)
        seen = self.show(page)
        self.assertEqual(seen["start"], "P1-2 (row 1, column 2)")
        self.assertEqual(seen["walked"], "P1-1 (row 1, column 1)")
        self.assertTrue(seen["focused"].startswith("P1-1, row 1, column 1: CIEDE2000 0.00"), seen["focused"])
        self.assertEqual((seen["end"], seen["chosen"]), ("P1-3 (row 1, column 3)", "P1-2 (row 1, column 2)"))
        self.assertEqual(seen["order"], [f"P{row}-{column}" for row, column in chart.spectra])
        self.assertEqual((seen["patches"], seen["selected"], seen["unmeasured"], seen["lines"]), (10, 1, 0, 2))
        mean, percentile, largest, count = seen["figures"]
        self.assertGreater(float(largest), 0.5)
        self.assertEqual(percentile, largest)
        self.assertAlmostEqual(float(mean), float(largest) / 10, delta=0.01)
        self.assertEqual(count, "10 / 10")
        self.assertIn("Rows read by spotsnone", seen["conditions"])
        self.assertEqual((seen["clipped"], seen["wide"]), ([], False))
        self.assertFalse(self.show(page, width=390)["wide"])

    @unittest.skipUnless(BROWSER, "chromium is not installed")
    def test_a_part_of_a_chart(self):
        seen = self.show(self.report(Chart(3, 4), Chart(3, 4), "--rows", "1", "--spot", "3"))
        self.assertEqual((seen["patches"], seen["unmeasured"]), (12, 8))
        self.assertEqual(seen["figures"][3], "4 / 12")
        self.assertEqual(seen["clipped"], [])
        self.assertIn("Rows read by spotsall, as asked: 3 for each patch", seen["conditions"])


if __name__ == "__main__":
    unittest.main()
