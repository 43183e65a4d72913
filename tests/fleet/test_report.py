"""korvid-report's page in a real browser: its numbers are those of the query, and nothing in it runs that should not."""
import collections
import csv
import io
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
import unittest

import browser
import clickhouse
import records
import test_collect

BUILD = pathlib.Path(os.environ["KORVID_BUILD"])
# Where to leave pictures of the page; they are to be looked at.
SHOTS = os.environ.get("KORVID_SHOTS")
HOSTILE = ["<img src=x onerror=alert(1)>", "</script><script>alert(2)</script>", "=HYPERLINK(1)", "@DATA@ & \u2028 \"quoted\"", "-1+1"]

# The visible rows of a section's table, and those of its file.
ROWS = """[...document.querySelectorAll('section')].filter(s => s.dataset.title === %s).flatMap(s =>
          [...s.querySelectorAll('tbody tr')].map(r => [...r.cells].map(c => c.title)))"""
FILE = """(async () => { let made; const make = URL.createObjectURL; URL.createObjectURL = blob => { made = blob; return make(blob); };
          [...document.querySelectorAll('section')].find(s => s.dataset.title === %s).querySelector('.csv').click();
          URL.createObjectURL = make; return await made.text(); })()"""
CHOOSE = "document.getElementById('%s').value = %s; document.getElementById('%s').onchange()"
# Colours in a picture: one that is not drawn has none.
DRAWN = """[...document.querySelectorAll('.picture canvas')].map(c => {
           const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data, seen = new Set();
           for (let i = 0; i < d.length; i += 4) if (d[i + 3] > 200) seen.add(d[i] << 16 | d[i + 1] << 8 | d[i + 2]);
           return seen.size; })"""


def report(output, *source):
    subprocess.run([BUILD / "fleet/korvid-report", "-o", output, *map(str, source)], check=True)
    return output


def data_of(page):
    return json.loads(re.search(r'id="data">(.*?)</script>', page.read_text(), re.S).group(1))


def sums(facts, cells, *keys):
    """The cells by names: what the numbers of two pages have in common."""
    names = {"box": facts["boxes"], "application": facts["applications"], "group": facts["groups"], "talker": facts["talkers"]}
    cells = facts[cells]
    return {tuple(names[key][cells[key][i]] if key in names else cells[key][i] for key in keys):
            tuple(cells[one][i] for one in ("packets", "bytes", "enforced", "monitored")) for i in range(cells["count"])}


class Report(unittest.TestCase):
    def setUp(self):
        self.top = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.top)
        self.spool = self.top / "spool"

    def rows(self, page, title):
        return page.run(ROWS % json.dumps(title))

    def file(self, page, title):
        return list(csv.reader(io.StringIO(page.run(FILE % json.dumps(title)))))[1:]

    def open(self, path, **options):
        page = browser.Browser(**options)
        self.addCleanup(page.__exit__)
        page.__enter__()
        page.open(path)
        return page

    def test_a_line_adds_what_its_flow_has_grown_by(self):
        now = int(time.time()) // 3600 * 3600
        flow = lambda end, size, **more: records.enforced(now - 7000, end, size=size, **more)
        lines = [flow(now - 5000, 1000, ended=False), flow(now - 3500, 5000, ended=False), flow(now - 100, 2 ** 32 - 1, ended=False),
                 flow(now - 50, 99), flow(now - 50, 99)]
        records.put(self.spool, "enforcement", lines)
        records.put(self.spool, "enforcement", lines[:2], "_old.csv")
        facts = data_of(report(self.top / "page.html", "--box", "it", "--period", "1h", self.spool))
        self.assertEqual([facts["boxes"], facts["enforcementLines"]], [["it"], 5])
        cells = facts["cells"]
        self.assertEqual([size for at, size in zip(cells["time"], cells["bytes"]) if at < 0], [1000])
        self.assertEqual(sum(cells["bytes"]), 2 ** 32 + 99, "the counter of 32 bits has turned once")
        self.assertEqual(sum(cells["enforced"]), 1)
        earlier = data_of(report(self.top / "page.html", "--period", "1h", "--to", now - 4000, self.spool))
        self.assertEqual(earlier["cells"]["bytes"], [1000])

    def test_what_may_not_be_read_is_told(self):
        now = int(time.time())
        records.put(self.spool / "a", "monitoring", [records.monitored(now)])
        (self.spool / "c").mkdir(parents=True)
        for path in (records.put(self.spool / "b", "monitoring", [records.monitored(now)]), self.spool / "c"):
            path.chmod(0)
        done = subprocess.run(["setpriv", "--bounding-set", "-dac_override,-dac_read_search", BUILD / "fleet/korvid-report",
                               "-o", self.top / "page.html", self.spool], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, "the rest makes a page")
        for told in ("b/appmon_monitor_flow_records.csv: Permission denied", "c: Permission denied"):
            self.assertIn(told, done.stderr)

    def test_half_an_answer_makes_no_page(self):
        """As ClickHouse does, the server says with the first rows that all is well, unless it is told to wait for the last."""
        rows = b"2\t1700000000\t1700000000\nCode: 241, e.displayText() = DB::Exception: Memory limit exceeded\n"
        url = test_collect.http_server(self, lambda path, _: (500 if "wait_end_of_query=1" in path else 200, rows))
        done = subprocess.run([BUILD / "fleet/korvid-report", "-o", self.top / "page.html", "--server", url],
                              capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, (self.top / "page.html").exists()), (1, False), done.stderr)

    @unittest.skipUnless(browser.installed() and clickhouse.installed(), "chromium or clickhouse-server is not installed")
    def test_numbers_are_those_of_the_query(self):
        self.spool.mkdir()
        test_collect.generate(self.spool / "north", 3, 6, 4000, 2 * test_collect.DAY)
        records.put(self.spool / "south/elsewhere", "monitoring", [records.monitored(int(time.time()) + 60)])
        folder = data_of(report(self.top / "folder.html", "--site", "north/", self.spool))
        with clickhouse.Cluster(self.top / "clickhouse", shards=2) as cluster:
            subprocess.run([BUILD / "fleet/korvid-collect", "--server", cluster.first.url, "--settle", "0", "--once",
                            self.spool], check=True, stderr=subprocess.DEVNULL)
            page = report(self.top / "fleet.html", "--site", "north/", "--server", cluster.first.url)
            facts = data_of(page)
            # Monitored flows need no growth: a plain query has them.
            monitored = {name: int(count) for name, count in cluster.rows(
                "SELECT Application, count() FROM korvid.monitoring FINAL WHERE Box = 'north/box-00002' AND "
                f"Time >= toDateTime({facts['from']}) AND Time < toDateTime({facts['to']}) GROUP BY Application")}
        self.assertGreater(len(facts["cells"]["time"]), 5000)
        for cells, keys in (("cells", ("time", "box", "application", "group")), ("talkerCells", ("talker", "time", "box", "application"))):
            self.assertEqual(sums(facts, cells, *keys), sums(folder, cells, *keys))

        shown = self.open(page)
        self.assertTrue(all(colors > 4 for colors in shown.run(DRAWN)), shown.run(DRAWN))
        expected = collections.Counter()
        for (at, name), row in sums_by(facts, "application").items():
            if at >= 0:
                expected[name] += row[1]
        self.assertEqual({row[0]: int(row[1]) for row in self.file(shown, "Applications")}, dict(expected))
        # One box and the second half of the day.
        shown.run(CHOOSE % ("box", "'north/box-00002'", "box"))
        self.assertEqual({row[0]: int(row[4]) for row in self.file(shown, "Applications") if row[4] != "0"}, monitored)
        half = shown.run("document.getElementById('to').length") // 2
        shown.run(CHOOSE % ("from", half, "from"))
        cells = facts["cells"]
        chosen = [i for i in range(cells["count"]) if facts["boxes"][cells["box"][i]] == "north/box-00002" and cells["time"][i] >= half]
        for section in ("Applications", "Groups", "Boxes"):
            self.assertEqual(sum(int(row[1]) for row in self.file(shown, section)), sum(cells["bytes"][i] for i in chosen), section)
        # A name that is clicked is chosen; what nobody has is nothing.
        first = self.rows(shown, "Applications")[0][0]
        shown.run("[...document.querySelectorAll('section')].find(s => s.dataset.title === 'Applications').querySelector('td a').click()")
        self.assertEqual([row[0] for row in self.file(shown, "Applications")], [first])
        shown.run(CHOOSE % ("application", "'no such'", "application"))
        self.assertFalse(shown.run("document.getElementById('nothing').hidden"))
        shown.run("document.getElementById('reset').onclick()")
        self.assertEqual(sum(int(row[1]) for row in self.file(shown, "Applications")), sum(expected.values()))
        self.assertEqual(shown.problems, [])
        if SHOTS:
            shown.screenshot(f"{SHOTS}/light.png")
            self.open(page, dark=True, size=(800, 1000)).screenshot(f"{SHOTS}/dark.png")

    @unittest.skipUnless(browser.installed(), "chromium is not installed")
    def test_names_are_text_and_nothing_else(self):
        now = int(time.time())
        for number, name in enumerate(HOSTILE):
            box = name.replace("/", "\u2215")
            records.put(self.spool / box, "enforcement",
                        [records.enforced(now - 60, now, application=name[:32], group=name[:40], port=number + 1)])
        page = self.open(report(self.top / "page.html", self.spool))
        self.assertEqual(sorted(row[0] for row in self.rows(page, "Applications")), sorted(name[:32] for name in HOSTILE))
        self.assertEqual(page.run("document.querySelectorAll('img, script').length"), 3)
        cells = {cell for row in self.file(page, "Groups") for cell in row}
        self.assertTrue({"'=HYPERLINK(1)", "'-1+1"} <= cells, cells)
        self.assertEqual(page.problems, [])
        # Not even what would have got in.
        page.run("document.body.appendChild(Object.assign(document.createElement('script'), {textContent: 'window.ran = 1'})) && 0")
        self.assertEqual((page.run("window.ran"), len(page.problems)), (None, 1))

    @unittest.skipUnless(browser.installed(), "chromium is not installed")
    def test_a_hundred_thousand_flows_stay_usable(self):
        test_collect.generate(self.spool, 4, 300, 480)
        path = report(self.top / "page.html", self.spool)
        page = self.open(path)
        facts = data_of(path)
        self.assertGreater(facts["enforcementLines"] + facts["monitoringLines"], 100_000)
        self.assertLessEqual(facts["cells"]["count"] + facts["talkerCells"]["count"], 300_000)
        self.assertEqual(len(facts["boxes"]), 201)
        self.assertLess(page.run("document.querySelectorAll('*').length"), 3000)
        # A second is what people wait for; the bound is for machines with other work.
        took = page.run(f"(() => {{ const began = performance.now(); {CHOOSE % ('application', repr('TLS'), 'application')}; return performance.now() - began; }})()")
        self.assertLess(took, 5000)
        self.assertEqual(page.problems, [])


def sums_by(facts, column):
    """(time, name): sums over everything else."""
    found = collections.defaultdict(lambda: [0, 0, 0, 0])
    cells = facts["cells"]
    for i in range(cells["count"]):
        row = found[cells["time"][i], facts[column + "s"][cells[column][i]]]
        for place, one in enumerate(("packets", "bytes", "enforced", "monitored")):
            row[place] += cells[one][i]
    return found


if __name__ == "__main__":
    unittest.main()
