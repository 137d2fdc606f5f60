"""A circuit of 2016 gates on 16 qubits, alone and on a busy machine: `busy_machine.py [RUNS]`.

Prints, for the default number of threads and for given ones, the slowest of four runs in seconds:
alone, beside one process that never rests, and in four processes at once.
"""

import multiprocessing
import os
import statistics
import sys
import time

import pblinalg as pb

QUBITS = 16
RUNS = 4


def brickwork() -> pb.Circuit:
    circuit = pb.Circuit(QUBITS)
    for i in range(42 * 3 * QUBITS):
        row, qubit = divmod(i, QUBITS)
        if row % 3 < 2:
            (circuit.rx, circuit.rz)[row % 3](0.1 * i, qubit)
        else:
            circuit.cx(qubit, (qubit + 1) % QUBITS)
    return circuit


def slowest_run(threads: int | None) -> float:
    circuit = brickwork()
    circuit.run(100, threads=threads, seed=1)
    seconds = []
    for _ in range(RUNS):
        begin = time.perf_counter()
        circuit.run(100, threads=threads, seed=1)
        seconds.append(time.perf_counter() - begin)
    return max(seconds)


def never_rest() -> None:
    while True:
        pass


def beside_a_busy_process(threads: int | None) -> float:
    busy = multiprocessing.get_context("spawn").Process(target=never_rest, daemon=True)
    busy.start()
    try:
        return slowest_run(threads)
    finally:
        busy.kill()
        busy.join()


def in_a_pool(threads: int | None) -> float:
    with multiprocessing.get_context("spawn").Pool(4) as pool:
        return max(pool.map(slowest_run, [threads] * 4, chunksize=1))


def main() -> None:
    repeats = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    print(f"{os.cpu_count()} processors, medians of {repeats}, seconds")
    print(f"{'threads':>8} {'alone':>8} {'beside a busy process':>22} {'in a pool of four':>18}")
    for threads in (None, 1, 2):
        columns = [
            statistics.median(measure(threads) for _ in range(repeats))
            for measure in (slowest_run, beside_a_busy_process, in_a_pool)
        ]
        name = "default" if threads is None else threads
        print(f"{name:>8} {columns[0]:>8.3f} {columns[1]:>22.3f} {columns[2]:>18.3f}", flush=True)


if __name__ == "__main__":
    main()
