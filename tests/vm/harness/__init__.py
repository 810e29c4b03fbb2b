"""Runs the driver's tests in virtual machines; see ../README.md."""
