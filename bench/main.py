"""Measures, prints tables (the figures themselves go to results.json), and with --record writes docs/performance-figures.md and its pictures.
Called by bench/run, which builds first."""

import argparse
import json
import pathlib
import tempfile

import report
from agents import Workshop
from measure import TABLES, Measure

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCS = ROOT / "docs"


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", action="append", choices=list(report.SECTIONS))
    parser.add_argument("--record", action="store_true")
    parser.add_argument("binaries", type=pathlib.Path)
    return parser.parse_args()


def measure(options):
    """{section: figures}; each is shown when it is there."""
    results = {}
    with tempfile.TemporaryDirectory(prefix="bench-") as folder:
        work = Measure(Workshop(str(options.binaries), folder), 3 if options.quick else 5,
                       options.quick)
        make = {"steps": work.steps, "agentx": work.agentx, "waits": work.waits, "memory": work.memory,
                "start": work.start, "changes": work.changes, "sources": work.sources,
                "ike": work.ike, "policies": work.policies}
        for section in options.only or report.SECTIONS:
            results[section] = work.table(section) if section in TABLES else make[section]()
            options.binaries.with_name("results.json").write_text(json.dumps(results),
                                                                  encoding="utf-8")
            print("\n" + report.text({section: results[section]}), flush=True)
    return results


def record(results, command):
    import pictures  # matplotlib is needed for nothing else
    shown = pictures.draw(results, DOCS)
    (DOCS / "performance-figures.md").write_text(report.document(results, command, shown),
                                                 encoding="utf-8")


def main():
    options = arguments()
    print(report.machine())
    results = measure(options)
    if options.record:
        record(results, "bench/run --record" + (" --quick" if options.quick else ""))


main()
