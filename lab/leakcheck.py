"""A node's daemon under valgrind through a scenario, then stopped with SIGTERM: no byte
definitely lost, no invalid read or write.

    python3 -m lab.leakcheck [SCENARIO] [--node A] [--dir D]

The lab of the scenario's topology comes up with the scenario's settings already written (so
that no restart is needed for them); the node's daemon runs as
`valgrind --leak-check=full --errors-for-leak-kinds=definite ...` (every start of it, a
scenario's restarts included), the others as they are. valgrind's report is
<lab>/nodes/<node>/run/valgrind.<pid>.log. Prints the scenario's summary line, the steering
figures and valgrind's summary lines; exits 0 when the scenario ran without failures, the daemon
ended with status 0 and valgrind found no error (a definite leak counts as one), 1 otherwise.
"""

import argparse
import re
import signal
import sys
import tempfile
import time
from pathlib import Path

from lab import render, scenario_check
from lab.controller import Lab
from lab.sandbox import REPO
from lab.scenario_run import Runner

ERROR_STATUS = 99
VALGRIND = ["valgrind", "--leak-check=full", "--errors-for-leak-kinds=definite",
            f"--error-exitcode={ERROR_STATUS}", "--log-file=/var/run/valgrind.%p.log"]
READY = r"bandherd is ready\."
SUMMARY_LINES = re.compile(r"^==\d+== +(definitely lost|indirectly lost|possibly lost|still reachable|"
                           r"ERROR SUMMARY|Invalid (read|write)).*$", re.M)


def check(scenario, node="A", lab_dir=None, out=print):
    """Runs the check; returns (passed, {"status", "failed", "reports", "seconds"})."""
    sc = scenario_check.load(scenario)
    lab = Lab()
    lab.wrappers[node] = VALGRIND
    started = time.monotonic()
    try:
        topology = Path(scenario).parent / sc.topology
        if not topology.exists():
            topology = REPO / "lab" / "topologies" / sc.topology
        lab.up(topology, lab_dir or tempfile.mkdtemp(prefix="bh-vg-", dir="/tmp"), sc.settings)
        for n in lab.topology.nodes:
            lab.start_node(n.name)
        for n in lab.topology.nodes:
            lab.wait_log(n.name, READY, 60)
        out(f"{node}'s daemon runs under valgrind; playing {sc.name}")
        summary = Runner(lab, scenario_check.load(scenario, lab.topology)).run()
        status = lab.stop_daemon(node, signal.SIGTERM, 120)
    finally:
        lab.down()
    reports = {p.name: p.read_text() for p in sorted((lab.node_dir(node) / "run").glob("valgrind.*.log"))}
    out(f"scenario: {len(summary['failed'])} failed steps; {render.figures_line(summary['steering']['figures'])}")
    for name, text in reports.items():
        out(f"{name}:")
        for m in SUMMARY_LINES.finditer(text):
            out("  " + m[0].split("== ", 1)[1].strip())
    clean = all(re.search(r"ERROR SUMMARY: 0 errors", t) for t in reports.values()) and reports
    passed = bool(clean) and status == 0 and not summary["failed"]
    seconds = time.monotonic() - started
    out(f"{'passed' if passed else 'FAILED'}: daemon status {status}, {len(reports)} valgrind report(s), "
        f"{seconds:.0f} s; the lab's files stay in {lab.dir}")
    return passed, {"status": status, "failed": summary["failed"], "reports": reports, "seconds": seconds}


def main(argv=None):
    ap = argparse.ArgumentParser(prog="python3 -m lab.leakcheck", description=__doc__.split("\n\n")[0])
    ap.add_argument("scenario", nargs="?", default=str(REPO / "lab" / "scenarios" / "demo.json"))
    ap.add_argument("--node", default="A", help="the node whose daemon runs under valgrind (A)")
    ap.add_argument("--dir", type=Path, default=None, help="the lab directory (a new /tmp/bh-vg-*)")
    args = ap.parse_args(argv)
    passed, _ = check(args.scenario, args.node, args.dir)
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
