import json
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


def pytest_configure(config):
    config.addinivalue_line("markers", "lasts(seconds): about how long the test runs (as a module's pytestmark: "
                                       "all its tests, which share one lab); a parallel run starts the longest first")
    # `-n N` alone would hand out test by test: tests that share a lab must stay together. The
    # workers learn it from the controller (they parse the command line as it was given).
    if getattr(config.option, "dist", "no") == "load":
        config.option.dist = "loadgroup"
    if getattr(config, "workerinput", {}).get("loadgroup"):
        config.option.loadgroup = True


@pytest.hookimpl(optionalhook=True)
def pytest_configure_node(node):
    node.workerinput["loadgroup"] = node.config.getoption("dist") == "loadgroup"


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(config, items):
    """In a parallel run (pytest -n N --dist loadgroup) the tests that share a lab of their module
    (a module-scoped fixture of the module itself) run on one worker, in the module's order: one
    lab serves them, as in a serial run. Every other test may run on any worker.

    The run takes as long as its busiest worker, so the longest tests start first (their `lasts`
    marks). At the start each of the N workers is handed two: one of the N longest, and one of the
    next N in reverse order (the longest test's worker gets the shortest of them); the others follow,
    longest first, each to a worker as it starts its last test but one."""
    if not config.pluginmanager.hasplugin("xdist"):
        return
    units = {}
    for item in items:
        own = [d for defs in item._fixtureinfo.name2fixturedefs.values() for d in defs
               if d.scope == "module" and d.baseid == item.parent.nodeid]
        if own:
            item.add_marker(pytest.mark.xdist_group(item.module.__name__))
            units.setdefault(item.module.__name__, []).append(item)
        else:
            units.setdefault(item.nodeid, []).append(item)
    workers = getattr(config, "workerinput", {}).get("workercount")
    if not workers:
        return

    def lasts(unit):
        return max((item.get_closest_marker("lasts").args[0] for item in unit if item.get_closest_marker("lasts")),
                   default=0)
    ordered = sorted(units.values(), key=lasts, reverse=True)
    ordered[workers:2 * workers] = ordered[workers:2 * workers][::-1]
    items[:] = [item for unit in ordered for item in unit]


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session):
    """A worker of a parallel run (pytest -n) hands its modules' figures to the controller."""
    workeroutput = getattr(session.config, "workeroutput", None)
    if workeroutput is not None:
        workeroutput["steering"] = json.dumps(_STEERING)


@pytest.hookimpl(optionalhook=True)
def pytest_testnodedown(node, error):
    """The controller of a parallel run gathers each worker's figures (a module's tests may have
    run on several workers: their labs are merged as one module's)."""
    for key, found in json.loads(getattr(node, "workeroutput", {}).get("steering", "{}")).items():
        _STEERING.setdefault(key, []).extend(found)


def pytest_terminal_summary(terminalreporter):
    if not _STEERING:
        return
    terminalreporter.section("steering in the labs")
    for module, found in sorted(_STEERING.items()):
        broken = [s["error"] for s in found if "error" in s]
        figures = summary.merge([s for s in found if "error" not in s])
        terminalreporter.line(f"{module}: {render.figures_line(figures)}"
                              + "".join(f"; summary failed: {e}" for e in broken))
