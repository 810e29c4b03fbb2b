# SPDX-License-Identifier: GPL-2.0-only
"""The error of everything that goes wrong outside a test: what happened, to what, and what to do next."""


class HarnessError(Exception):
    pass
