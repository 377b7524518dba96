"""Runs the cases of the benchmark and prints what they find; see README.md beside this file."""

import argparse
import importlib
import pathlib
import signal
import sys
import tempfile

import other_build
import report
import rig

CASES = ["round_trip", "throughput", "burst", "instructions", "system_calls", "growth", "resources",
         "alternatives"]
RESULTS = pathlib.Path(__file__).resolve().parent / "results"


class Bench(report.Report):
    """What a case gets: the report, and a folder of its own for what it starts."""

    def __init__(self, directory, quick, other, scratch):
        super().__init__(directory, quick, other)
        self.quick = quick
        self.builds = [rig.THIS_BUILD, other] if other else [rig.THIS_BUILD]
        self._scratch = pathlib.Path(scratch)

    def pick(self, full, quick):
        return quick if self.quick else full

    def folder(self):
        """A new, empty folder."""
        return pathlib.Path(tempfile.mkdtemp(dir=self._scratch))


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Measures the service.")
    parser.add_argument("--quick", action="store_true",
                        help="a minute at most, to see that everything works")
    parser.add_argument("--only", action="append", metavar="CASE", choices=CASES,
                        help=f"run this case alone; may be repeated ({', '.join(CASES)})")
    parser.add_argument("--output", default=RESULTS, metavar="DIR",
                        help="where the data and plots go, in place of earlier ones "
                             "(default: bench/results)")
    parser.add_argument("--against", metavar="COMMIT",
                        help="build this commit, too, and compare the two builds pair by pair")
    options = parser.parse_args()
    try:
        other = other_build.build(options.against) if options.against else None
    except rig.Failure as failure:
        parser.error(str(failure))

    with tempfile.TemporaryDirectory(prefix="pex-bench-") as scratch:
        try:
            bench = Bench(options.output, options.quick, other, scratch)
        except report.NotResults as error:
            parser.error(str(error))
        try:
            for name in options.only or CASES:
                case = importlib.import_module(f"cases.{name}")
                bench.case = case.TITLE
                case.run(bench)
        except rig.Failure as failure:
            bench.end_progress()
            print(f"{bench.case}: {failure}", file=sys.stderr)
            return 1
        bench.end_progress()
        print(bench.finish(), end="")
    return 0


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *call: sys.exit(143))  # so that all processes end
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
