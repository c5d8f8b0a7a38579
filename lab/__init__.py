"""What one needs to bring the gateway up on a bench and to look at it from outside; README.md shows a session."""
