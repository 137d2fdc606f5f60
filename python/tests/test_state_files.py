"""States in .npy files: what is written is read again, here and by NumPy, and a file that is not
whole is refused by name."""

import numpy as np
import pytest

import pblinalg as pb


def state(precision="double"):
    return pb.StateVector(3, precision).h(0).cx(0, 2).rx(0.3, 1)


def mixture(precision="double"):
    return pb.DensityMatrix(2, precision).h(0).cx(0, 1).depolarize(0.2, 0)


def test_states_come_back_as_they_were(precision, tmp_path):
    for make in (state, mixture, lambda precision: pb.StateVector(0, precision)):
        thing = make(precision.name)
        path = tmp_path / "state.npy"
        thing.save(path)
        stored = np.load(path)
        assert stored.dtype == precision.complex and np.array_equal(stored, thing.to_array())
        twin = type(thing).load(str(path), threads=2, seed=5)
        assert (twin.precision, twin.threads, twin.seed) == (precision.name, 2, 5)
        assert np.array_equal(twin.to_array(), thing.to_array())
        # Nothing is left open on the file, and nothing beside it.
        path.unlink()
        twin.reset()
        assert not list(tmp_path.iterdir())
    np.save(tmp_path / "own.npy", np.array([0, 1j], dtype=precision.complex))
    assert pb.StateVector.load(tmp_path / "own.npy")["1"] == 1j


def test_a_save_that_fails_keeps_the_old_file(tmp_path, monkeypatch):
    path = tmp_path / "state.npy"
    state().save(path)
    before = path.read_bytes()

    def fails(*_):
        raise KeyboardInterrupt

    for broken in ("numpy.memmap.flush", "os.replace", "os.posix_fallocate"):
        with monkeypatch.context() as patch, pytest.raises(KeyboardInterrupt):
            patch.setattr(broken, fails)
            pb.StateVector(2).save(path)
        assert path.read_bytes() == before and list(tmp_path.iterdir()) == [path]
    with pytest.raises(FileNotFoundError, match="nowhere"):
        state().save(tmp_path / "nowhere" / "state.npy")


def saved(array):
    return lambda path: np.save(path, array)


def changed(edit):
    def write(path):
        state().save(path)
        path.write_bytes(edit(path.read_bytes()))

    return write


EYE = np.eye(4, dtype=complex)
CASES = [
    (changed(lambda data: data[:-16]), "holds 240 bytes; expected 256 for shape .8,.: the"),
    (changed(lambda data: data + b"\0"), "holds 257 bytes; expected 256"),
    (changed(lambda data: data[:50]), "is no .npy file of an array"),
    (changed(lambda data: b""), "is no .npy file of an array"),
    (changed(lambda data: b"PK" + data[2:]), "is no .npy file of an array"),
    (changed(lambda data: data.replace(b"'shape'", b"'shade'")), "is no .npy file of an array"),
    (saved(np.ones(8)), "holds elements of '<f8'; expected little-endian complex64"),
    (saved(np.ones(8, dtype=">c16")), "holds elements of '>c16'"),
    (saved(np.array([None], dtype=object)), "holds elements of '|O'"),
    (saved(np.ones(6, dtype=complex)), r"shape \(6,\); expected \(2\^n,\)"),
    (saved(np.ones(0, dtype=complex)), r"shape \(0,\); expected"),
    (saved(np.array(1j)), r"shape \(\); expected"),
    (saved(EYE), r"shape \(4, 4\); expected"),
    (saved(np.ones(8, dtype=complex)), "amplitudes has norm 2.8"),
    (saved(np.full(8, np.nan, dtype=complex)), "amplitudes has norm nan"),
]
MIXED_CASES = [
    (saved(EYE[0]), r"shape \(4,\); expected \(2\^n, 2\^n\)"),
    (saved(EYE[:2]), r"shape \(2, 4\); expected \(2\^n, 2\^n\)"),
    (saved(np.asfortranarray(EYE + np.diag([1, 1], 2))), r"\(4, 4\) in Fortran order; expected"),
    (saved(EYE), "matrix must be Hermitian with trace 1"),
]


@pytest.mark.parametrize(
    "kind,write,text",
    [(pb.StateVector, *case) for case in CASES] + [(pb.DensityMatrix, *c) for c in MIXED_CASES],
)
def test_files_that_hold_no_state_are_named(kind, write, text, tmp_path):
    path = tmp_path / "spoiled.npy"
    write(path)
    with pytest.raises(ValueError, match=rf"spoiled\.npy.* {text}"):
        kind.load(path)


def test_unchecked_states_load_as_they_are(tmp_path):
    np.save(tmp_path / "wide.npy", np.ones(8, dtype=complex))
    assert pb.StateVector.load(tmp_path / "wide.npy", check=False).norm() == pytest.approx(8**0.5)
