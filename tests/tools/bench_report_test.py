"""Runs tools/bench-report on measurements written here, and reads what it makes of them."""

import json
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree
from pathlib import Path

TOOL = Path(__file__).parents[2] / "tools" / "bench-report"


def run(name, cpu_time, **fields):
    return {"name": name, "run_name": name, "run_type": "iteration", "repetition_index": 0,
            "iterations": 10, "real_time": 2 * cpu_time, "cpu_time": cpu_time, "time_unit": "ns",
            **fields}


MEASUREMENTS = [
    run("Lock/ours", 10.0, allocs=0.0), run("Lock/ours", 12.0, allocs=0.0),
    run("Lock/ours", 500.0, allocs=7.0),
    {**run("Lock/ours", 99.0), "run_type": "aggregate", "aggregate_name": "mean"},
    run("Lock/Peer A", 24.0), run("Lock/Peer B", 6.0),
    run("Cache/get/ours/64/real_time", 1.0, time_unit="us"),
    run("Cache/get/Peer A/64/real_time", 2.0, time_unit="us"),
    run("Alone/ours/iterations:5", 30.0),
]


class BenchReport(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def report(self, *options, runs=MEASUREMENTS, bars=()):
        text = json.dumps({"benchmarks": runs}) if runs else ""
        (self.folder / "runs.json").write_text(text)
        (self.folder / "bars.json").write_text(json.dumps(bars))
        return subprocess.run(
            [sys.executable, TOOL, "runs.json", "--bars", "bars.json", "--ratios", "ratios.json",
             *options],
            cwd=self.folder, capture_output=True, text=True, check=False)

    def rows(self):
        return {(row["name"], row["peer"]): row
                for row in json.loads((self.folder / "ratios.json").read_text())}

    def test_a_row_per_peer_has_the_medians_and_their_ratio(self):
        self.assertEqual(self.report().returncode, 0)
        self.assertEqual(self.rows()["Lock", "Peer A"],
                         {"name": "Lock", "ours_ns": 12.0, "peer": "Peer A", "peer_ns": 24.0,
                          "ratio": 2.0, "counters": {"allocs": 0.0}})
        self.assertEqual(self.rows()["Lock", "Peer B"]["ratio"], 0.5)

    def test_wall_time_counts_where_the_benchmark_asked_for_it(self):
        self.report()
        row = self.rows()["Cache/get/64", "Peer A"]
        self.assertEqual((row["ours_ns"], row["peer_ns"]), (2000.0, 4000.0))

    def test_a_benchmark_without_a_peer_has_a_row(self):
        self.report()
        row = self.rows()["Alone", None]
        self.assertEqual((row["ours_ns"], row["peer_ns"], row["ratio"]), (30.0, None, None))

    def test_every_kind_of_bar_is_met_or_missed(self):
        for bar, word in (
                ({"name": "Lock", "peer": "Peer A", "at_least": 2.0}, "met "),
                ({"name": "Lock", "peer": "Peer A", "at_least": 2.1}, "MISSED"),
                ({"name": "Lock", "peer": "Nobody", "at_least": 0.1}, "MISSED"),
                ({"name": "Alone", "at_least": 1.0}, "MISSED"),
                ({"name": "Lock", "ours_ns_under": 12.5}, "met "),
                ({"name": "Lock", "ours_ns_under": 12}, "MISSED"),
                ({"name": "Alone", "relative_to": "Lock/ours", "at_most": 2.5}, "met "),
                ({"name": "Alone", "relative_to": "Lock/ours", "at_most": 2.4}, "MISSED"),
                ({"name": "Alone", "relative_to": "Gone/ours", "at_most": 9}, "MISSED"),
                ({"name": "Lock", "counter": "allocs", "at_most": 0}, "met "),
                ({"name": "Lock", "counter": "allocs", "at_most": -1}, "MISSED"),
                ({"name": "Lock", "counter": "bytes", "at_most": 9}, "MISSED"),
                ({"name": "Gone", "ours_ns_under": 1}, "MISSED")):
            with self.subTest(bar=bar):
                result = self.report(bars=[bar])
                self.assertIn(f"\n{word}", result.stdout)
                self.assertEqual(result.returncode, 0)
                checked = self.report("--check", bars=[bar])
                self.assertEqual(checked.returncode, 1 if word == "MISSED" else 0)

    def test_a_ratio_bar_without_a_peer_holds_against_every_peer(self):
        result = self.report(bars=[{"name": "Lock", "at_least": 1.0}])
        self.assertIn("met     Lock: 2.00 × Peer A", result.stdout)
        self.assertIn("MISSED  Lock: 0.50 × Peer B", result.stdout)

    def test_a_partial_run_leaves_out_the_bars_of_the_rest(self):
        bars = [{"name": "Gone", "ours_ns_under": 1},
                {"name": "Alone", "relative_to": "Gone/ours", "at_most": 1}]
        self.assertEqual(self.report("--check", "--partial", bars=bars).returncode, 0)
        self.assertEqual(self.report("--check", bars=bars).returncode, 1)

    def test_a_failed_benchmark_fails_the_report(self):
        failed = run("Lock/Peer A", 1.0, error_occurred=True, error_message="other results")
        result = self.report(runs=[*MEASUREMENTS, failed])
        self.assertEqual(result.returncode, 1)
        self.assertIn("other results", result.stderr)

    def test_a_run_that_measured_nothing_fails_the_report(self):
        result = self.report(runs=[])
        self.assertEqual(result.returncode, 1)
        self.assertIn("no benchmark was run", result.stderr)

    def test_a_peer_without_ours_fails_the_report(self):
        self.assertEqual(self.report(runs=[run("Lock/Peer A", 1.0)]).returncode, 1)

    def test_the_table_of_a_page_is_written_anew(self):
        page = self.folder / "page.md"
        head = "# Title\n\n| a | b |\n|---|---|\n| 1 | 2 |\n\n| benchmark | ours | peer | peer's time | ratio |\n|---|---|---|---|---|\n"
        page.write_text(head + "| Old | 1.0 ns | Peer | 2.0 ns | 2.00 |\n\nA word.\n\n| c |\n|---|\n")
        self.assertEqual(self.report("--table", "page.md").returncode, 0)
        self.assertEqual(page.read_text(), head +
                         "| Alone | 30.0 ns | – | – | – |\n"
                         "| Cache/get/64 | 2,000 ns | Peer A | 4,000 ns | 2.00 |\n"
                         "| Lock | 12.0 ns | Peer A | 24.0 ns | 2.00 |\n"
                         "| Lock | 12.0 ns | Peer B | 6.0 ns | 0.50 |\n"
                         "\nA word.\n\n| c |\n|---|\n")

    def test_names_are_written_as_markdown_shows_them(self):
        page = self.folder / "page.md"
        page.write_text("| benchmark | ours | peer | peer's time | ratio |\n|---|---|---|---|---|\n")
        self.report("--table", "page.md", runs=[run("Async<int> | await/ours", 1.0)])
        self.assertIn("| Async&lt;int&gt; \\| await | 1.0 ns |", page.read_text())

    def test_a_page_without_the_table_is_refused(self):
        page = self.folder / "page.md"
        twice = "| benchmark | ratio |\n|---|---|\n\n" * 2
        for text in ("# Title\n", "| a | b |\n|---|---|\n", twice):
            page.write_text(text)
            self.assertNotEqual(
                self.report("--table", "page.md", "--chart", "chart.svg").returncode, 0)
            self.assertEqual(page.read_text(), text)
            self.assertFalse((self.folder / "chart.svg").exists())

    def test_the_chart_has_a_bar_per_peer(self):
        self.assertEqual(self.report("--chart", "chart.svg").returncode, 0)
        chart = xml.etree.ElementTree.parse(self.folder / "chart.svg")
        bars = chart.findall("{http://www.w3.org/2000/svg}rect")
        self.assertEqual([bar.get("class") for bar in bars], ["ahead", "ahead", "behind"])


if __name__ == "__main__":
    unittest.main()
