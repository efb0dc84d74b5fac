"""A short soak: the three-node mesh with 256 stations churning. The daemons must all live to the
end, steer, and hold no more memory or descriptors than when it began (lab/soak.py)."""

from lab import soak


def test_a_short_soak_of_256_churning_stations(bandherd, lab_dir):
    lines = []
    _, _, problems = soak.soak(0.5, lab_dir, out=lines.append)
    assert problems == [], "\n".join(lines)
