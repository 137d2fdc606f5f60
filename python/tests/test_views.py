"""Arrays without copies: what they show, how long they live, what they forbid."""

import gc
import weakref

import numpy as np
import pytest

import dense
import pblinalg as pb


def test_the_view_is_the_memory_itself_in_internal_order(precision, rng):
    n = 5
    start = dense.random_state(rng, n)
    state = precision.state(start)
    view = state.state
    assert view.dtype == precision.complex and view.shape == (2**n,)
    assert view.flags.writeable and view.ctypes.data % 64 == 0
    assert np.array_equal(view[dense.bit_reversal(n)], start.astype(precision.complex))
    state.apply_X(0)
    assert np.array_equal(view, state.state) and np.shares_memory(view, state.state)
    view[:] = 0
    view[3] = 1
    assert state.get_mapped_statevector() == {0b11000: 1}


def test_a_view_outlives_the_name_of_its_state():
    state = pb.StateVector(10)
    alive = weakref.ref(state.core)
    part = state.amplitudes[1:].real
    del state
    gc.collect()
    assert alive() is not None and part.sum() == 0
    del part
    gc.collect()
    assert alive() is None


def test_resize_and_release_are_refused_while_any_view_is_alive(precision):
    state = precision.State(4)
    state.reset()
    part = state.state[2:].imag
    for change in (lambda: state.resize(5), lambda: state.resize(3), state.release_memory):
        with pytest.raises(BufferError, match="1 array views"):
            change()
    assert state.nqubits == 4 and state.views == 1
    state.resize(4)
    del part
    gc.collect()
    state.resize(5)
    assert state.state.shape == (32,) and not state.state.any()
    state.resize(2)
    assert state.state.shape == (4,)
    state.release_memory()
    assert state.state.shape == (0,) and state.size == 0
    for call in (state.reset, lambda: state.apply_nqbit_gate([], [[1]]), lambda: state.sample(1)):
        with pytest.raises(ValueError, match="no amplitudes"):
            call()
    with pytest.raises(IndexError):
        state.apply_H(0)
    state.resize(1)
    state.reset()
    assert state.str() == "(1,0) (0,0) "


def test_results_are_written_into_the_caller_s_buffers(precision, rng):
    state = precision.state(dense.random_state(rng, 4))
    state.rng.seed(5)
    filled = {
        "get_permuted_statevector": ((), np.empty(16, precision.complex)),
        "get_permuted_density_matrix": ((), np.empty((4, 4), precision.complex)),
        "get_permuted_density_diag": ((), np.empty(4, precision.real)),
        "get_distribution": (([2, 0],), np.empty(4, precision.real)),
        "sample": ((7,), np.empty(7, np.uint64)),
        "sample_subset": (([1], 7), np.empty(7, np.uint64)),
    }
    for name, (arguments, out) in filled.items():
        member = getattr(state, name)
        assert member(*arguments, out=out) is out
        if not name.startswith("sample"):
            assert np.array_equal(member(*arguments).reshape(out.shape), out)
        for wrong in (out.reshape(-1)[:-1], np.empty(out.size + 1, out.dtype)):
            with pytest.raises(ValueError, match="elements; expected"):
                member(*arguments, out=wrong)
        read_only = out.copy()
        read_only.flags.writeable = False
        spread = np.empty(2 * out.size, out.dtype)[::2]
        for wrong in (read_only, spread, np.empty(out.size, np.int8), [0] * out.size, "text"):
            with pytest.raises(TypeError, match="out must be a writable"):
                member(*arguments, out=wrong)
    with pytest.raises(ValueError, match="overlaps"):
        state.get_permuted_statevector(out=state.state)


def test_inputs_of_other_kinds_are_converted_by_one_rule(precision, rng):
    start = dense.random_state(rng, 3)
    state = precision.State(3)
    expected = precision.state(start).state
    spread = np.repeat(start, 2)[::2]
    for source in (start, list(start), start.astype(">c16"), spread, start.reshape(2, 4)):
        state.reset(source)
        assert np.array_equal(state.state, expected)
    state.reset(range(8))
    assert np.array_equal(state.get_permuted_statevector(), np.arange(8))
    state.reset(state.state)
    assert np.array_equal(state.get_permuted_statevector(), np.arange(8)[dense.bit_reversal(3)])
    kept = state.state.copy()
    for source in (["a"] * 8, [None] * 8, np.array([object()] * 8), {}, np.zeros(8, bool), 3.0):
        with pytest.raises(TypeError, match="source must be an array of complex"):
            state.reset(source)
    assert np.array_equal(state.state, kept)
    state.apply_binary_qram([1, 0], [0, 1], 1)
    for words in ([1.5, 0], [1 + 0j, 0], [-1, 0]):
        with pytest.raises(TypeError, match="words must be an array of uint64"):
            state.apply_binary_qram(words, [0, 1], 1)
