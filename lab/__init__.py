"""The simulated mesh lab: node sandboxes, daemons and (later) the driver double and mesh relay."""
