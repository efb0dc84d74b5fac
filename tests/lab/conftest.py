import shutil
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import render, summary  # noqa: E402
from lab.loop import Loop  # noqa: E402
from lab.netns import cleanup  # noqa: E402
from lab.sandbox import daemon_binary  # noqa: E402


@pytest.fixture(scope="session")
def bandherd():
    binary = daemon_binary()
    if not binary.exists():
        pytest.fail(f"{binary} is not built")
    return binary


@pytest.fixture
def lab_dir():
    """A short lab directory (socket paths must fit in 108 bytes), removed afterwards."""
    d = Path(tempfile.mkdtemp(prefix="bh-", dir="/tmp"))
    yield d
    cleanup(d)          # whatever a failed test left running
    shutil.rmtree(d, ignore_errors=True)


@pytest.fixture
def loop():
    """The lab's socket loop on its background thread."""
    lp = Loop()
    lp.start()
    yield lp
    lp.stop()


_STEERING = {}      # test module -> the steering summaries of the labs it brought up


@pytest.fixture(scope="module")
def steering_report(request):
    """note(lab[, name]) keeps the steering summary of a lab the module brought up (call it before
    the lab goes down); the end of the run shows each module's (or each named lab's) steers, median
    time to steer and longest lock-out."""
    def note(lab, name=None):
        if lab.world is None:
            return
        key = request.module.__name__ + (f" {name}" if name else "")
        try:
            _STEERING.setdefault(key, []).append(lab.summary())
        except Exception as e:      # the figures are for people: a failure to read them fails no test
            _STEERING.setdefault(key, []).append({"error": f"{type(e).__name__}: {e}"})
    return note


def pytest_terminal_summary(terminalreporter):
    if not _STEERING:
        return
    terminalreporter.section("steering in the labs")
    for module, found in sorted(_STEERING.items()):
        broken = [s["error"] for s in found if "error" in s]
        figures = summary.merge([s for s in found if "error" not in s])
        terminalreporter.line(f"{module}: {render.figures_line(figures)}"
                              + "".join(f"; summary failed: {e}" for e in broken))
