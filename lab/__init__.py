"""The simulated mesh lab: node namespaces, driver doubles, the mesh relay, the controller and its command line."""
