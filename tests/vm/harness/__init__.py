# SPDX-License-Identifier: GPL-2.0-only
"""Runs the driver's tests in virtual machines; see ../README.md."""
