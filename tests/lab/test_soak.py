"""A short soak: the three-node mesh with 256 stations churning. The daemons must all live to the
end, steer, and hold no more memory or descriptors at the end than after the first third of the
churn, the warm-up (lab/soak.py)."""

from lab import soak


def test_a_short_soak_of_256_churning_stations(bandherd, lab_dir):
    lines = []
    # Short walks, so that stations cross from node to node, and are steered, within the run.
    _, _, problems = soak.soak(0.75, lab_dir, out=lines.append, walk=(10, 20))
    assert problems == [], "\n".join(lines)
