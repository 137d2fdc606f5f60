"""Memory that runs out: refused beforehand where a limit is known, survived where it is not."""

import textwrap

import pytest

from interpreter import run_python

pytest.importorskip("resource")


def run_limited(limit: str, body: str) -> None:
    """Runs `body` with a 4-qubit state `s` and `limit` 64 MiB above what the process uses."""
    script = f"""
        import resource
        import pytest
        import pblinalg as pb

        s = pb.StateVector(4, threads=1).h(3)
        with open("/proc/self/statm") as file:
            used = int(file.read().split()[0]) * resource.getpagesize()
        hard = resource.getrlimit(resource.{limit})[1]
        resource.setrlimit(resource.{limit}, (used + (64 << 20), hard))
    """
    run_python("-c", textwrap.dedent(script) + textwrap.dedent(body))


def test_the_limit_of_the_address_space_is_seen_before_anything_is_freed():
    run_limited(
        "RLIMIT_AS",
        """
        with pytest.raises(MemoryError, match="a register of 26 qubits needs .* available"):
            s.resize(26)
        assert abs(s.probability("0000") - 0.5) < 1e-12
        """,
    )


def test_a_resize_that_fails_leaves_a_state_that_works_again_after_the_next_one():
    run_limited(
        "RLIMIT_DATA",
        """
        limits = resource.getrlimit(resource.RLIMIT_DATA)
        with pytest.raises(MemoryError):
            s.resize(27)
        core = s.core
        for call in (lambda: s.h(0), lambda: s.u(0, 1, 2, 3), lambda: s.cz(0, 1),
                     lambda: core.str(), lambda: core.apply_H(0),
                     lambda: core.apply_SWAP(0, 1), core.reset, lambda: core.sample(3),
                     lambda: core.probability(0)):
            with pytest.raises(ValueError, match="holds no amplitudes"):
                call()
        with pytest.raises(MemoryError):
            s.resize(27)
        s.resize(4).h(0)
        assert abs(s.probability("1", [0]) - 0.5) < 1e-12
        resource.setrlimit(resource.RLIMIT_DATA, (limits[1], limits[1]))
        assert s.resize(20).probability("0" * 20) == 1
        """,
    )
