"""Forks and threads around the library: nothing hangs, nothing tears."""

import multiprocessing
import os
import signal
import textwrap
import threading
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import pblinalg as pb
from interpreter import run_python

QUBITS = 18  # large enough for parallel regions and for calls without the interpreter lock


def parallel_weight(seed: int) -> float:
    state = pb.StateVector(QUBITS, threads=2, seed=seed)
    for qubit in range(QUBITS):
        state.h(qubit)
    return state.probability("0" * QUBITS)


def test_a_process_pool_works_after_a_parallel_run():
    before = parallel_weight(0)
    with multiprocessing.get_context("fork").Pool(2) as pool:
        weights = pool.map_async(parallel_weight, range(4)).get(timeout=60)
    assert weights == [before] * 4
    assert parallel_weight(5) == before


def test_a_fork_waits_for_the_calls_of_other_threads():
    stop = threading.Event()

    def work():
        state = pb.StateVector(QUBITS, threads=2)
        while not stop.is_set():
            state.h(0)
            state.sample(10)

    thread = threading.Thread(target=work)
    thread.start()
    try:
        for _ in range(20):
            child = os.fork()
            if child == 0:
                os._exit(0 if parallel_weight(0) > 0 else 1)
            assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    finally:
        stop.set()
        thread.join()


def test_threads_with_states_of_their_own_agree():
    def work(_):
        return pb.StateVector(QUBITS, threads=2, seed=1).h(0).cx(0, 9).sample(100)

    with ThreadPoolExecutor(4) as threads:
        results = list(threads.map(work, range(4)))
    assert results == results[:1] * 4


def test_the_lock_is_released_in_long_calls_and_one_state_has_one_user():
    state = pb.StateVector(22, threads=1)
    refused = []
    running = threading.Event()

    def work():
        running.set()
        for _ in range(30):
            state.h(3)

    thread = threading.Thread(target=work)
    thread.start()
    running.wait()
    turns = 0
    while thread.is_alive():
        turns += 1
        try:
            state.core.resize(3)
            state.core.resize(22)
        except RuntimeError as error:
            refused.append(error)
    thread.join()
    assert turns > 30 and refused


@pytest.mark.parametrize("instrument", ["signal", "callback"])
def test_a_stopped_circuit_leaves_the_gates_up_to_a_boundary(instrument):
    script = f"""
        import os, signal, threading
        import numpy as np
        import pblinalg as pb
        n, gates = 19, 4000
        circuit = pb.Circuit(n)
        for i in range(gates):
            circuit.rx(0.1 + i % 7, i % n).cx(i % n, (i + 1) % n).s(i % n)
        state = pb.StateVector(n, threads=1)
        def stop(done, total):
            assert total == 3 * gates
            if done > 100:
                raise KeyboardInterrupt
        progress = stop if {instrument!r} == "callback" else None
        if progress is None:
            # A shell's background jobs begin with this signal ignored.
            signal.signal(signal.SIGINT, signal.default_int_handler)
            threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()
        try:
            state.run(circuit, progress=progress)
            raise SystemExit("not interrupted")
        except KeyboardInterrupt:
            done = state.core.gates_applied
        assert 0 < done < 3 * gates, done
        expected = pb.StateVector(n, threads=1)
        for gate, _ in zip(circuit, range(done)):
            alone = pb.lowlevel.GateList(n)
            alone.add(*gate)
            alone.run(expected.core)
        assert np.array_equal(expected.amplitudes, state.amplitudes)
        state.reset().h(0)
        assert abs(state.probability("1", [0]) - 0.5) < 1e-12
    """
    run_python("-c", textwrap.dedent(script))


def test_a_stopped_density_matrix_has_every_gate_on_both_sides():
    n, gates = 8, 3000
    circuit = pb.Circuit(n)
    for i in range(gates):
        circuit.rx(0.1 + i % 7, i % n).cx(i % n, (i + 1) % n).y(i % n)
    state = pb.DensityMatrix(n, threads=1)
    with pytest.raises(ZeroDivisionError):
        state.run(circuit, progress=lambda done, total: 1 / 0)
    done, odd = divmod(state.core.gates_applied, 2)
    assert 0 < done < 3 * gates and not odd
    expected = pb.lowlevel.GateList(n)
    for gate, _ in zip(circuit, range(done)):
        expected.add(*gate)
    other = pb.DensityMatrix(n)
    expected.run(other.core, both_sides=True)
    assert np.array_equal(other.core.state, state.core.state)


def test_a_progress_callback_cannot_pull_the_state_away():
    circuit = pb.Circuit(15)
    for step in range(20000):
        circuit.s(step % 15)
    state = pb.StateVector(15, threads=1)
    with pytest.raises(RuntimeError, match="in use"):
        state.run(circuit, progress=lambda done, total: state.release())
    assert 0 < state.core.gates_applied <= 20000
    assert state.probability("0" * 15) == 1


def test_signals_are_seen_in_the_middle_of_an_expectation_value(precision):
    rng = np.random.default_rng(1)
    strings = {"".join(rng.choice(list("IXYZ"), 20)): rng.normal() for _ in range(300)}
    state = pb.StateVector(20, precision.name).h(0)
    few = list(strings)[:20]
    alone = {letters: state.expectation(pb.Observable({letters: 1.0})) for letters in few}
    seen = []
    old = signal.signal(signal.SIGALRM, lambda *_: seen.append(1))
    try:
        for value in (state.expectation, state.expectation_terms):
            del seen[:]
            signal.setitimer(signal.ITIMER_REAL, 0.001, 0.001)
            result = value(pb.Observable(strings))
            signal.setitimer(signal.ITIMER_REAL, 0)
            assert len(seen) > 3
    finally:
        signal.signal(signal.SIGALRM, old)
    for letters, expected in alone.items():
        assert abs(result[letters] - strings[letters] * expected) < 10 * precision.tolerance


def test_shots_stop_between_pieces_and_use_up_the_draws():
    whole = pb.StateVector(2, seed=3).h(0).h(1).sample_outcomes(3 << 20)
    state = pb.StateVector(2, seed=3).h(0).h(1)

    def stop(done, total):
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        state.sample(3 << 20, progress=stop)
    assert np.array_equal(state.sample_outcomes(100), whole[1 << 20 :][:100])
