#include "circuits/run_alone.hpp"

#include <bit>
#include <cmath>

#include "apply/diagonal.hpp"
#include "apply/gates.hpp"
#include "apply/matrix.hpp"
#include "apply/phase_oracle.hpp"

namespace pblinalg::cpu {
namespace {

using orb::core::iterator::GroupMasks;
using orb::core::iterator::StateIterator;

/// Calls `body.operator()<Gate>()` for the formula of `action`.
template <class T, class Body>
void visit_formula(Action action, const Body& body) {
    switch (action) {
        case Action::H:
            return body.template operator()<GateH>();
        case Action::Y:
            return body.template operator()<GateY>();
        case Action::RX:
            return body.template operator()<GateRX>();
        case Action::RY:
            return body.template operator()<GateRY>();
        case Action::YtoZ:
            return body.template operator()<GateYtoZ>();
        case Action::ZtoY:
            return body.template operator()<GateZtoY>();
        case Action::matrix1:
            return body.template operator()<_Gate1QB<true>>();
        case Action::matrix2:
            return body.template operator()<_Gate2QB<true>>();
        case Action::X:
            return body.template operator()<GateX>();
        case Action::SWAP:
            return body.template operator()<GateSWAP>();
        case Action::Z:
            return body.template operator()<GateZ>();
        case Action::phase:
            return body.template operator()<GatePH<T>>();
        case Action::both:
            return body.template operator()<GateDiagonal>();
        default:
            return;
    }
}

/// Holds the bits of every group that lie under `bits` at `values`.
void hold(GroupMasks& groups, Index bits, Index values) {
    groups.free_mask &= ~bits;
    groups.fixed_bits |= values;
    // They are few.
    for (; bits != 0; bits &= bits - 1)
        groups.count /= 2;
}

/// An operation that no formula has: one that looks up what it multiplies by.
template <class T>
[[gnu::noinline]] void run_by_entries(std::complex<T>* amplitudes, unsigned int nqubits,
                                      const Program<T>& program, const Operation& operation,
                                      int num_threads) {
    if (operation.action == Action::oracle) {
        const PhaseOracle& oracle = program.oracles[operation.data];
        std::vector<unsigned int> numbers(oracle.qubits);
        for (unsigned int& number : numbers)
            number = nqubits - 1 - number;
        return negate_marked_values(amplitudes, nqubits, std::span(oracle.marked), numbers,
                                    num_threads);
    }
    if (operation.action == Action::dense) {
        const DenseMatrix<T>& dense = program.dense[operation.data];
        StateIterator groups(dense.qubits, {}, nqubits);
        hold(groups, operation.controls, operation.control_values);
        return _apply_nqbit_gate<T>(amplitudes, groups, dense.qubits, dense.entries, num_threads);
    }
    GroupMasks groups({}, {}, nqubits);
    hold(groups, operation.controls, operation.control_values);
    const DiagonalTable<T>& table = program.tables[operation.data];
    multiply_sorted_diag(amplitudes, groups, num_threads, table.diag.data(), table.bits);
}

}  // namespace

template <class T>
void run_alone(std::complex<T>* amplitudes, unsigned int nqubits, const Program<T>& program,
               const Operation& operation, const T* factors, int num_threads) {
    const Action action = operation.action;
    if (action == Action::table || action == Action::dense || action == Action::oracle)
        return run_by_entries(amplitudes, nqubits, program, operation, num_threads);
    GroupMasks all({}, {}, nqubits);
    hold(all, operation.target_bits | operation.controls, operation.control_values);
    const auto* const own = reinterpret_cast<const std::complex<T>*>(factors + operation.factors);
    GateWalk walk{all, {operation.targets[0], operation.targets[1]}};
    const auto run = [&](Action formula, const std::complex<T>* f) {
        visit_formula<T>(formula, [&]<class Gate>() {
            update_all_groups<Gate, T>(amplitudes, walk, num_threads, {f, Gate::n_factors});
        });
    };
    const Index selects = operation.selects;
    const bool on_one_bit = (selects & (selects - 1)) == 0;
    if (action == Action::both && selects != 0 && on_one_bit && !operation.inverted) {
        walk.targets[0] = static_cast<unsigned int>(std::countr_zero(selects));
        walk.groups.take_out(walk.targets[0]);
        return run(Action::both, own);
    }
    if (on_one_bit && action != Action::both) {
        if (selects == 0 && !operation.inverted) return;
        hold(walk.groups, selects, operation.inverted ? 0 : selects);
        return run(action, own + operation.is_diagonal());
    }
    // One row of a diagonal: a product with one factor.
    const Action by_row = action == Action::both ? Action::phase : action;
    // Each pattern of the selecting bits is a walk of its own.
    for (Index pattern = 0; pattern < bit(count_bits(selects)); ++pattern) {
        const bool odd = has_odd_parity(pattern) != operation.inverted;
        if (!odd && !operation.multiplies_all()) continue;
        walk.groups = all;
        hold(walk.groups, selects, deposit_bits(pattern, selects));
        run(by_row, own + (operation.is_diagonal() && odd));
    }
}

double cost_alone(const Operation& operation) {
    const bool half =
        operation.action == Action::SWAP || (operation.selects != 0 && !operation.multiplies_all());
    return std::ldexp(half ? 0.5 : 1.0, -static_cast<int>(count_bits(operation.controls)));
}

#define PBLINALG_INSTANTIATE(T)                                                   \
    template void run_alone<T>(std::complex<T>*, unsigned int, const Program<T>&, \
                               const Operation&, const T*, int);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
