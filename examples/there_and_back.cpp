// A circuit and its inverse on a state that is spread over MPI ranks: it must come back to |0...0>.
// Started by mpirun on a power of two of ranks.
#include <mpi.h>

#include <bit>
#include <cmath>
#include <iostream>
#include <pblinalg/mpi/dry_run.hpp>
#include <pblinalg/mpi/state_vector.hpp>

#include "support/command_line.hpp"

namespace {

/// Rotations of all qubits and CNOTs between neighbours.
pblinalg::GateList layers_of_gates(unsigned int n_qubits, unsigned int layers) {
    using pblinalg::GateKind;
    pblinalg::GateList list;
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n_qubits; ++q)
            list.add(layer % 2 ? GateKind::RX : GateKind::RY, q, 0.1 * (layer + 1) + 0.01 * q);
        for (unsigned int q = layer % 2; q + 1 < n_qubits; q += 2)
            list.add(GateKind::X, q + 1, pblinalg::Controls({q}));
    }
    return list;
}

int run(const std::vector<std::string>& arguments) {
    unsigned int n_qubits = 20, layers = 10;
    examples::CommandLine options("there_and_back",
                                  "Runs a circuit and its inverse over the ranks of mpirun.");
    options.add_integer("--qubits", "qubits of the state", n_qubits, 4u, 62u);
    options.add_integer("--layers", "layers of gates", layers, 1u, 1000u);
    if (!options.read(arguments)) return examples::exit_success;

    pblinalg::mpi::StateVector<double> state(MPI_COMM_WORLD, n_qubits);
    std::ostream quiet(nullptr);
    std::ostream& out = state.rank() == 0 ? std::cout : quiet;
    const pblinalg::GateList there = layers_of_gates(n_qubits, layers);
    const auto plan = pblinalg::mpi::dry_run<double>(
        there, n_qubits,
        static_cast<unsigned int>(std::countr_zero(static_cast<unsigned int>(state.ranks()))));
    out << n_qubits << " qubits on " << state.ranks() << " ranks of 2^" << state.local_qubits()
        << " amplitudes\n"
        << there.size() << " gates in " << plan.traffic.exchanges << " exchanges, "
        << plan.traffic.bytes / 1048576
        << " MiB sent by each rank; one exchange a gate: " << plan.gate_by_gate.bytes / 1048576
        << " MiB\n";
    state.seed(1);
    state.run(there);
    out << "Three shots:";
    for (const auto outcome : state.sample(3))
        out << ' ' << outcome;
    state.run(there.inverse());
    const double back = std::abs(state.amplitudes(std::vector<std::uint64_t>{0})[0]);
    const bool agrees = std::abs(back - 1) < 1e-9;
    out << "\nMagnitude of |0...0> after the inverse: " << back << '\n'
        << (agrees ? "Agrees" : "Does NOT agree") << " with theory.\n";
    return agrees ? examples::exit_success : examples::exit_check_failed;
}

}  // namespace

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    const int status = examples::run_program("there_and_back", argc, argv, run);
    MPI_Finalize();
    return status;
}
