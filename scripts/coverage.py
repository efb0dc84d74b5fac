#!/usr/bin/env python3
"""Line and branch coverage of the daemon's sources (src/, platform/) from a --coverage build.

    scripts/coverage.py BUILD_DIR [--json OUT] [--missed]

Runs gcov over every .gcda under BUILD_DIR and merges what each object saw of a source line (a
header's line counts in every object that includes it). Branches the compiler adds for exceptions
are left out: the daemon throws none.
"""

import argparse
import json
import os
import subprocess
import sys
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]     # the sources; a build elsewhere: --root
DIRS = ("src/", "platform/")


def gather(build, root):
    lines, branches = {}, {}        # (file, line) -> count; (file, line, index) -> taken
    for gcda in Path(build).resolve().rglob("*.gcda"):
        out = subprocess.run(["gcov", "--json-format", "--stdout", "--branch-probabilities", str(gcda)],
                             cwd=gcda.parent, check=True, capture_output=True).stdout
        for text in out.decode().splitlines():
            data = json.loads(text)
            cwd = data.get("current_working_directory", "")
            for f in data["files"]:
                path = Path(os.path.normpath(Path(cwd) / f["file"]))
                try:
                    rel = str(path.relative_to(root))
                except ValueError:
                    continue
                if not rel.startswith(DIRS):
                    continue
                for ln in f["lines"]:
                    key = (rel, ln["line_number"])
                    lines[key] = lines.get(key, 0) + ln["count"]
                    for i, br in enumerate(b for b in ln["branches"] if not b.get("throw")):
                        bkey = key + (i,)
                        branches[bkey] = branches.get(bkey, 0) + br["count"]
    return lines, branches


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build")
    ap.add_argument("--json", help="write every line's and branch's count here")
    ap.add_argument("--missed", action="store_true", help="list the lines never run")
    ap.add_argument("--root", default=REPO, type=Path, help="the source tree the build was made of")
    args = ap.parse_args()
    lines, branches = gather(args.build, args.root.resolve())
    if not lines:
        sys.exit(f"no coverage data under {args.build}")
    by_dir = {}
    for (rel, _), n in lines.items():
        d = by_dir.setdefault(rel.split("/")[0], [0, 0, 0, 0])
        d[0] += n > 0
        d[1] += 1
    for (rel, _, _), n in branches.items():
        d = by_dir[rel.split("/")[0]]
        d[2] += n > 0
        d[3] += 1
    total = [sum(d[i] for d in by_dir.values()) for i in range(4)]
    for name, d in sorted(by_dir.items()) + [("total", total)]:
        print(f"{name:9} lines {d[0]:5}/{d[1]:5} {100 * d[0] / d[1]:5.1f} %   "
              f"branches {d[2]:5}/{d[3]:5} {100 * d[2] / d[3]:5.1f} %")
    if args.json:
        Path(args.json).write_text(json.dumps({
            "lines": {f"{f}:{n}": c for (f, n), c in sorted(lines.items())},
            "branches": {f"{f}:{n}:{i}": c for (f, n, i), c in sorted(branches.items())}}, indent=0))
    if args.missed:
        for (rel, n), c in sorted(lines.items()):
            if c == 0:
                print(f"missed {rel}:{n}")


if __name__ == "__main__":
    main()
