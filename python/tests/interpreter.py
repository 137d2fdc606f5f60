"""New interpreters for tests that need a process of their own."""

import subprocess
import sys


def run_python(*arguments, timeout=120, **options):
    """Runs to the end, expects success, and returns what was written."""
    command = [sys.executable, *map(str, arguments)]
    result = subprocess.run(command, capture_output=True, text=True, timeout=timeout, **options)
    assert result.returncode == 0, result.stdout[-2000:] + result.stderr[-4000:]
    return result
