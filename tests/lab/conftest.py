import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab.sandbox import VarDir, daemon_binary  # noqa: E402


@pytest.fixture
def var(tmp_path):
    return VarDir(tmp_path / "var")


@pytest.fixture(scope="session")
def bandherd():
    binary = daemon_binary()
    if not binary.exists():
        pytest.fail(f"{binary} is not built")
    return binary
