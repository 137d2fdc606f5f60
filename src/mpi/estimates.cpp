// Pauli terms estimated from shots: every rank takes the same draws from the same distribution.
#include <exception>
#include <numeric>
#include <optional>
#include <stdexcept>

#include "mpi/checks.hpp"
#include "mpi/state.hpp"
#include "observables/evaluate_terms.hpp"

namespace pblinalg::mpi {
namespace {

template <class T>
void require_term(const SimpleTerm<T>& term, unsigned int n_qubits) {
    if (term.paulis.size() > term.qubits.size()) {
        throw std::invalid_argument("a term has " + std::to_string(term.paulis.size()) +
                                    " letters; expected at most one for each of its " +
                                    std::to_string(term.qubits.size()) + " qubits");
    }
    require_list(term.qubits, n_qubits);
}

template <class T>
GateList basis_change(const SimpleTerm<T>& term, bool undo) {
    GateList list;
    cpu::for_each_basis_gate(term, undo,
                             [&](GateKind kind, unsigned int qubit) { list.add(kind, qubit); });
    return list;
}

}  // namespace

template <class T>
auto StateVector<T>::evaluate_terms(std::vector<SimpleTerm<T>> terms, std::uint64_t nshots)
    -> std::vector<Estimate> {
    std::vector<Estimate> estimates;
    Digest digest;
    digest.add(nshots);
    together(state_->comm(), [&] {
        for (SimpleTerm<T>& term : terms) {
            require_term(term, nqubits());
            cpu::clean(term);
            cpu::require_estimable(term);
            digest.add_all(term.qubits);
            digest.add_all(term.paulis);
            digest.add_number(term.coefficient.real());
            digest.add_number(term.coefficient.imag());
        }
        estimates.reserve(terms.size());
    });
    require_same(state_->comm(), digest.value(), "the terms or the number of shots");
    for (const SimpleTerm<T>& term : terms) {
        GateList there, back;
        together(state_->comm(), [&] {
            there = basis_change(term, false);
            back = basis_change(term, true);
        });
        run(there);
        // Failures leave the generator and, once it is rotated back, the state.
        std::exception_ptr failure;
        try {
            const Qubits reversed(term.qubits.rbegin(), term.qubits.rend());
            std::vector<T> cumulative = state_->outcome_sums(reversed);
            std::partial_sum(cumulative.begin(), cumulative.end(), cumulative.begin());
            std::mt19937_64 rng = state_->rng;
            std::optional<Estimate> estimate;
            together(state_->comm(), [&] {
                estimate = cpu::evaluate_term(cumulative, term.coefficient, nshots, rng,
                                              state_->num_threads);
            });
            state_->rng = rng;
            estimates.push_back(*estimate);
        } catch (...) {
            failure = std::current_exception();
        }
        run(back);
        if (failure) std::rethrow_exception(failure);
    }
    return estimates;
}

#define PBLINALG_INSTANTIATE(T)                                       \
    template std::vector<std::pair<std::complex<T>, std::complex<T>>> \
    StateVector<T>::evaluate_terms(std::vector<SimpleTerm<T>> terms, std::uint64_t);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
