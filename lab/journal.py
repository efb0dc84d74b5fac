"""A time-stamped record of observed traffic: in memory for tests, and a JSON-lines file for people."""

import copy
import json
import threading
import time
from pathlib import Path


class Journal:
    """Records are dicts; each gets "t" (wall clock) and "mono" (monotonic clock) when added.

    A record may be completed later (a delayed mesh message learns where it
    was delivered): `add(..., final=False)` keeps it out of the file until
    `finish` writes it.
    """

    def __init__(self, path=None):
        self.path = path
        self._lock = threading.Lock()
        self._records = []
        self._open = set()      # ids of the records added with final=False and not finished yet
        if path:
            Path(path).parent.mkdir(parents=True, exist_ok=True)
        self._file = open(path, "a", buffering=1) if path else None

    def add(self, record, final=True):
        record.setdefault("t", round(time.time(), 6))
        record.setdefault("mono", round(time.monotonic(), 6))
        with self._lock:
            self._records.append(record)
            if final:
                self._write(record)
            else:
                self._open.add(id(record))
        return record

    def update(self, record, **fields):
        with self._lock:
            record.update(fields)

    def finish(self, record, **fields):
        with self._lock:
            record.update(fields)
            self._open.discard(id(record))
            self._write(record)

    def _write(self, record):
        if self._file:
            self._file.write(json.dumps(record, sort_keys=False) + "\n")

    def records(self, settled=False, **match):
        """Copies of the records whose fields equal every given value, oldest first; with `settled`
        only those complete (added final, or finished)."""
        with self._lock:
            found = [r for r in self._records if all(r.get(k) == v for k, v in match.items())
                     and not (settled and id(r) in self._open)]
            return copy.deepcopy(found)

    def since(self, index):
        """Copies of the records added from position `index` on, and the position after them:
        a reader that keeps the position sees each record once."""
        with self._lock:
            found = copy.deepcopy(self._records[index:])
            return found, len(self._records)

    def clear(self):
        with self._lock:
            self._records.clear()
            self._open.clear()

    def close(self):
        with self._lock:
            if self._file:
                self._file.close()
                self._file = None
