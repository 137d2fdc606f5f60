#include "mpi/checks.hpp"

#include <stdexcept>

namespace pblinalg::mpi {

void require_qubits(unsigned int n_qubits, unsigned int rank_bits) {
    if (n_qubits >= rank_bits + min_local_bits) return;
    throw std::invalid_argument(std::to_string(n_qubits) + " qubits are too few for 2^" +
                                std::to_string(rank_bits) + " ranks; expected at least " +
                                std::to_string(rank_bits + min_local_bits));
}

void require_runnable(const GateList& list, unsigned int n_qubits, unsigned int rank_bits) {
    if (list.n_qubits() > n_qubits) {
        throw std::invalid_argument("the list acts on qubit " +
                                    std::to_string(list.n_qubits() - 1) + "; the state has " +
                                    std::to_string(n_qubits) + " qubits");
    }
    const unsigned int local_bits = n_qubits - rank_bits;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const GateView gate = list[i];
        if (gate.kind != GateKind::matrix || gate.targets.size() <= local_bits) continue;
        throw std::invalid_argument("gate " + std::to_string(i) + " is a matrix on " +
                                    std::to_string(gate.targets.size()) + " qubits; a rank has " +
                                    std::to_string(local_bits));
    }
}

void require_list(std::span<const unsigned int> qubits, unsigned int n_qubits) {
    std::uint64_t seen = 0;
    for (const unsigned int qubit : qubits) {
        if (qubit >= n_qubits) {
            throw std::invalid_argument("qubit " + std::to_string(qubit) + " of a state of " +
                                        std::to_string(n_qubits) + " qubits");
        }
        if (seen >> qubit & 1)
            throw std::invalid_argument("qubit " + std::to_string(qubit) + " is listed twice");
        seen |= std::uint64_t{1} << qubit;
    }
}

void require_count(std::size_t count, std::size_t expected, const std::string& name) {
    if (count == expected) return;
    throw std::invalid_argument(name + " holds " + std::to_string(count) + " elements; expected " +
                                std::to_string(expected));
}

void require_list_within(std::span<const unsigned int> qubits, unsigned int n_qubits,
                         unsigned int local_bits) {
    require_list(qubits, n_qubits);
    if (qubits.size() > local_bits) {
        throw std::invalid_argument(std::to_string(qubits.size()) +
                                    " qubits are listed; a rank has " + std::to_string(local_bits));
    }
}

}  // namespace pblinalg::mpi
