"""The lab's command line: python3 -m lab COMMAND (run from the repository's root).

Its commands are the rows of lab/commands.py (served by a running lab's
controller) and of lab/console.py (run here); `python3 -m lab --help` lists them.
"""

import argparse
import os
import signal
import sys
from pathlib import Path

from lab import bench, commands, console, soak  # noqa: F401  (they add their commands to the table)
from lab.controller import EXPECTED_ERRORS, control_request, controller_pid, default_dir, error_text


def parser():
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--dir", type=Path, default=argparse.SUPPRESS,
                        help=f"the lab directory (default {default_dir()}, or $BANDHERD_LAB)")
    return commands.parser(common)


def run(command, args):
    """A typed command: run here, or asked of the running lab's controller and its answer shown."""
    if command.run is not None:
        return command.run(args)
    if command.offline is not None and controller_pid(args.dir) is None:
        result = command.offline(args)
    else:
        try:
            result = control_request(args.dir, commands.request_of(command, args), command.timeout)
        except (FileNotFoundError, ConnectionRefusedError):
            console.fail(f"no lab controller runs in {args.dir} (start one with `python3 -m lab up TOPOLOGY`)")
    command.show(result, args)
    return 0


def main(argv=None):
    args = parser().parse_args(argv)
    args.dir = Path(args.dir) if getattr(args, "dir", None) else default_dir()
    # What a person can get wrong, or the machine refuse, ends in one line, not a traceback.
    try:
        return run(args.command, args) or 0
    except BrokenPipeError:
        # Whoever reads our output stopped (`nodes --json | head`): end quietly, as a program
        # that SIGPIPE ends does; stdout goes nowhere so that nothing else fails on it.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 128 + signal.SIGPIPE
    except KeyboardInterrupt:
        print("\nlab: interrupted", file=sys.stderr)
        return 128 + signal.SIGINT
    except EXPECTED_ERRORS as e:
        console.fail(error_text(e))


if __name__ == "__main__":
    sys.exit(main())
