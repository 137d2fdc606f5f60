// The circuit driver: reads gates by name and hands them on to be run together.
#include <pblinalg/state_vector_cpu.hpp>
#include <stdexcept>

#include "circuits/passes.hpp"

namespace pblinalg::cpu {
namespace {

/// Gates read before they are run; long circuits go in pieces of this length.
constexpr std::size_t piece_length = 1024;

}  // namespace

template <class T>
void PybindLinAlgStateVectorCPU<T>::simulate_circuit(PybindLinAlgWCircuit<T>& circuit) {
    const std::size_t n_gates = circuit.gate_names.size();
    // What a control that the state does not have comes to is the member's business.
    const auto needs_member = [&](std::size_t i) {
        return circuit.gate_names[i] == "CNOT" && circuit.gate_qubits[i][0] >= nqubits;
    };
    for (std::size_t i = 0; i < n_gates; ++i) {
        bool known = true;
        run_operations<T>(state.get(), nqubits, num_threads,
                          [&](std::vector<Operation<T>>& operations) {
                              for (; i < n_gates && operations.size() < piece_length; ++i) {
                                  if (needs_member(i)) break;
                                  known = append_operation(circuit, i, operations);
                                  if (!known) break;
                              }
                          });
        if (!known) {
            throw std::invalid_argument("Gate " + circuit.gate_names[i] +
                                        " is not supported by the pybinded circuit");
        }
        if (i < n_gates) apply_CNOT(circuit.gate_qubits[i][0], circuit.gate_qubits[i][1]);
    }
}

template void PybindLinAlgStateVectorCPU<float>::simulate_circuit(PybindLinAlgWCircuit<float>&);
template void PybindLinAlgStateVectorCPU<double>::simulate_circuit(PybindLinAlgWCircuit<double>&);

}  // namespace pblinalg::cpu
