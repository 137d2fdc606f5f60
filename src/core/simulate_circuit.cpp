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
        const bool known = append_operation(circuit, i, operations);
        if (!known || operations.size() == piece_length || i + 1 == n_gates) {
            run_operations(state.get(), nqubits, std::move(operations), num_threads);
            operations.clear();
        }
        if (!known) {
            throw std::invalid_argument("Gate " + circuit.gate_names[i] +
                                        " is not supported by the pybinded circuit");
        }
    }
}

template void PybindLinAlgStateVectorCPU<float>::simulate_circuit(PybindLinAlgWCircuit<float>&);
template void PybindLinAlgStateVectorCPU<double>::simulate_circuit(PybindLinAlgWCircuit<double>&);

}  // namespace pblinalg::cpu
