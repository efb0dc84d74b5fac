"""What a running daemon holds, read from /proc: its private memory and its open descriptors.

Both the load benchmark and the soak read a daemon through these, so that their
figures mean the same thing.
"""

import time
from pathlib import Path


def private_dirty(pid):
    """The process's Private_Dirty in KiB (from smaps_rollup): the memory it wrote and owns alone,
    heap, stack and written data pages, not the shared libraries' text."""
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith("Private_Dirty:"):
            return int(line.split()[1])
    raise ValueError(f"/proc/{pid}/smaps_rollup has no Private_Dirty line")


def open_fds(pid):
    """How many descriptors the process has open."""
    return len(list(Path(f"/proc/{pid}/fd").iterdir()))


def quiet_sample(read, pid, samples=5, pause=0.2):
    """The least of a few readings of `read(pid)` taken `pause` seconds apart: a daemon that is
    in the middle of sending a mesh message, or has a connection of the relay's still open,
    holds a descriptor or a buffer more for a moment; its resting figure is the least."""
    found = []
    for i in range(samples):
        if i:
            time.sleep(pause)
        found.append(read(pid))
    return min(found)
