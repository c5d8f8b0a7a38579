"""Starts a gateway with a bus and a simulated device, and looks at it from outside; README.md shows a session."""
