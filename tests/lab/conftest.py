import shutil
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

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
