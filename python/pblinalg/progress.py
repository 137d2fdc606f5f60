"""Telling a caller how far a long run has come."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

#: What the `progress` argument of long runs takes: a function of (done, total); True or False to
#: ask for a bar or for none; None for a bar when the terminal is interactive and tqdm is there.
Progress = Callable[[int, int], object] | bool | None


def check_progress(progress: Progress) -> None:
    """TypeError for what `progress` does not take."""
    if not callable(progress) and not any(progress is known for known in (True, False, None)):
        raise TypeError(f"progress must be a function, True, False or None, got {progress!r}")


def bar_class() -> Any:
    """tqdm, or an ImportError that says what to install."""
    try:
        from tqdm.auto import tqdm
    except ImportError as error:
        raise ImportError("a bar needs tqdm: pip install 'pblinalg[progress]'") from error
    return tqdm


@contextmanager
def reporter(progress: Progress, total: int, unit: str) -> Iterator[Callable[[int], object] | None]:
    """Yields a function of the number done, or None when nobody wants to know."""
    check_progress(progress)
    if progress is False or (progress is None and not sys.stderr.isatty()):
        yield None
        return
    if callable(progress):
        yield lambda done: progress(done, total)
        return
    try:
        tqdm = bar_class()
    except ImportError:
        if progress is None:
            yield None
            return
        raise
    # Runs that are over in a second get no bar.
    with tqdm(total=total, unit=unit, delay=0 if progress else 1, leave=bool(progress)) as bar:
        yield lambda done: bar.update(done - bar.n)
