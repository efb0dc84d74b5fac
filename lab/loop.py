"""One `selectors` loop on a background thread, serving every socket of the lab.

Callbacks run on the loop's thread one at a time, so the driver doubles and
the relay need no locks among themselves; other threads hand work to the loop
with `call_soon`, `call_later` or `call` (which waits for the result).
What became due first runs first: a timer that fell due while the loop was
held up runs before work handed over after it was due.
"""

import heapq
import itertools
import logging
import os
import selectors
import threading
import time

log = logging.getLogger("lab")


class Loop:
    def __init__(self):
        self._sel = selectors.DefaultSelector()
        self._wake_r, self._wake_w = os.pipe()
        os.set_blocking(self._wake_r, False)
        os.set_blocking(self._wake_w, False)
        self._sel.register(self._wake_r, selectors.EVENT_READ, None)
        self._lock = threading.Lock()
        self._soon = []
        self._timers = []
        self._seq = itertools.count()
        self._thread = None
        self._running = False

    # -- from any thread ---------------------------------------------------

    def start(self):
        self._running = True
        self._thread = threading.Thread(target=self._run, name="lab-loop", daemon=True)
        self._thread.start()

    def stop(self):
        """Stops the loop and waits for its thread; safe to call twice."""
        if self._thread is None:
            return
        self._running = False
        self._wake()
        if threading.current_thread() is not self._thread:
            self._thread.join(10)
        self._thread = None
        self._sel.close()
        os.close(self._wake_r)
        os.close(self._wake_w)

    def in_loop(self):
        return threading.current_thread() is self._thread

    def call_soon(self, fn, *args):
        with self._lock:
            self._soon.append((time.monotonic(), next(self._seq), fn, args))
        self._wake()

    def call_later(self, delay, fn, *args):
        """fn(*args) once `delay` seconds from now have passed (a delay below 0: a time that has)."""
        with self._lock:
            heapq.heappush(self._timers, (time.monotonic() + delay, next(self._seq), fn, args))
        self._wake()

    def call(self, fn, *args, timeout=10.0):
        """Runs fn(*args) on the loop's thread and returns its result (or raises its exception)."""
        if self._thread is None or self.in_loop():
            return fn(*args)
        done = threading.Event()
        box = {}

        def run():
            try:
                box["result"] = fn(*args)
            except BaseException as e:  # handed to the caller
                box["error"] = e
            done.set()

        self.call_soon(run)
        if not done.wait(timeout):
            raise TimeoutError(f"the lab loop did not run {fn.__name__} in {timeout} s")
        if "error" in box:
            raise box["error"]
        return box["result"]

    # -- on the loop's thread -----------------------------------------------

    def add_reader(self, fileobj, callback):
        """Calls callback(fileobj) whenever fileobj is readable."""
        self._sel.register(fileobj, selectors.EVENT_READ, callback)

    def remove_reader(self, fileobj):
        try:
            self._sel.unregister(fileobj)
        except (KeyError, ValueError):
            pass

    def _wake(self):
        try:
            os.write(self._wake_w, b"x")
        except (BlockingIOError, OSError):
            pass

    def _run(self):
        while self._running:
            timeout = None
            with self._lock:
                if self._soon:
                    timeout = 0
                elif self._timers:
                    timeout = max(0.0, self._timers[0][0] - time.monotonic())
            for key, _ in self._sel.select(timeout):
                if key.data is None:
                    try:
                        while os.read(self._wake_r, 4096):
                            pass
                    except BlockingIOError:
                        pass
                    continue
                if self._sel.get_map().get(key.fd) is not key:
                    continue        # closed by an earlier callback of this round
                self._guard(key.data, key.fileobj)
            now = time.monotonic()
            with self._lock:
                ready = self._soon
                self._soon = []
                while self._timers and self._timers[0][0] <= now:
                    ready.append(heapq.heappop(self._timers))
            ready.sort()
            for _, _, fn, args in ready:
                self._guard(fn, *args)

    @staticmethod
    def _guard(fn, *args):
        try:
            fn(*args)
        except Exception:
            log.exception("lab loop: %s failed", getattr(fn, "__name__", fn))
