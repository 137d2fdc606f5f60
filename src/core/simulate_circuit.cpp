// The circuit driver: reads gates by name and hands them on to be run together.
#include <pblinalg/state_vector_cpu.hpp>
#include <stdexcept>

#include "core/circuit_passes.hpp"

namespace pblinalg::cpu {
namespace {

/// Gates read before they are run; long circuits go in pieces of this length.
constexpr std::size_t piece_length = 8192;

}  // namespace

template <class T>
void PybindLinAlgStateVectorCPU<T>::simulate_circuit(PybindLinAlgWCircuit<T>& circuit) {
    const std::size_t n_gates = circuit.gate_names.size();
    std::vector<Operation<T>> operations;
    for (std::size_t i = 0; i < n_gates; ++i) {
        // What a control that the state does not have comes to is the member's business.
        const bool alone = circuit.gate_names[i] == "CNOT" && circuit.gate_qubits[i][0] >= nqubits;
        const bool known = alone || append_operation(circuit, i, operations);
        if (alone || !known || operations.size() == piece_length || i + 1 == n_gates) {
            run_operations(state.get(), nqubits, std::move(operations), num_threads);
            operations.clear();
        }
        if (alone) apply_CNOT(circuit.gate_qubits[i][0], circuit.gate_qubits[i][1]);
        if (!known) {
            throw std::invalid_argument("Gate " + circuit.gate_names[i] +
                                        " is not supported by the pybinded circuit");
        }
    }
}

template void PybindLinAlgStateVectorCPU<float>::simulate_circuit(PybindLinAlgWCircuit<float>&);
template void PybindLinAlgStateVectorCPU<double>::simulate_circuit(PybindLinAlgWCircuit<double>&);

}  // namespace pblinalg::cpu
