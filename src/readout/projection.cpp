// Projection: one pass that sums what stays, one that divides it and clears the rest.
#include "readout/projection.hpp"

#include <algorithm>
#include <cmath>
#include <pblinalg/state_vector_cpu.hpp>
#include <stdexcept>

#include "core/complex_math.hpp"
#include "core/parallel.hpp"
#include "kernels/norm_kernels.hpp"
#include "kernels/walk_groups.hpp"

namespace pblinalg::cpu {
namespace {

/// The indices that agree with `outcome` on `qubits`.
Selection select_outcome(QubitSpan qubits, unsigned long long outcome) {
    Selection selection{0, 0};
    for (std::size_t j = qubits.size(); j-- > 0; outcome >>= 1) {
        selection.mask |= bit(qubits[j] % 64);
        selection.pattern |= (outcome & 1) << qubits[j] % 64;
    }
    return selection;
}

}  // namespace

std::string impossible_outcome(QubitSpan qubits, unsigned long long outcome) {
    std::string list;
    for (const unsigned int qubit : qubits) {
        if (!list.empty()) list += ", ";
        list += std::to_string(qubit);
    }
    return "Outcome " + std::to_string(outcome) + " on qubits (" + list + ") has probability zero.";
}

template <class T>
T outcome_weight(const std::complex<T>* state, unsigned long long size, QubitSpan qubits,
                 unsigned long long outcome, int num_threads) {
    const Selection kept = select_outcome(qubits, outcome);
    if (kept.pattern >= size) return 0;
    const IndexWalk walk{(size - 1) & ~kept.mask, kept.pattern};
    return sum_over_pieces<T>(walk.count(), walk.count(), num_threads, [&](Index begin, Index end) {
        return dispatch([&]<InstructionSet set>() {
            return sum_square_magnitudes<set>(parts(state), size, walk, begin, end);
        });
    });
}

template <class T>
void collapse(std::complex<T>* state, unsigned long long size, QubitSpan qubits,
              unsigned long long outcome, T weight, int num_threads) {
    const Selection kept = select_outcome(qubits, outcome);
    const T root = std::sqrt(weight);
    for_each_block(size, size, num_threads, [&](Index begin, Index end) {
        dispatch([&]<InstructionSet set>() {
            divide_matching<set>(parts(state), size, kept, begin, end, root);
        });
    });
}

template <class T>
void move_to_zero(std::complex<T>* state, unsigned long long size, QubitSpan qubits,
                  unsigned long long outcome, int num_threads) {
    // Deliberately the whole value: one of which only bits above the list are set goes on, and
    // every amplitude, already in its place, is cleared.
    if (outcome == 0) return;
    const Selection kept = select_outcome(qubits, outcome);
    const Index free_mask = (size - 1) & ~kept.mask;
    // The bits below the lowest listed qubit count through neighbours.
    const Index run = std::min(lowest_bit(kept.mask | size), Index{size});
    const Index run_mask = run - 1;
    const Index runs = bit(count_bits(free_mask & ~run_mask));
    for_each_block(runs * run, runs * run, num_threads, [&](Index begin, Index end) {
        while (begin < end) {
            const Index length = std::min(end - begin, run - (begin & run_mask));
            const Index to = deposit_bits(begin, free_mask);
            std::complex<T>* const from = state + (to | kept.pattern);
            if (kept.pattern != 0) std::copy_n(from, length, state + to);
            std::fill_n(from, length, std::complex<T>());
            begin += length;
        }
    });
}

template <class T>
void _project(std::complex<T>* state, unsigned long long size, QubitSpan qubits,
              unsigned long long outcome, int num_threads) {
    const T weight = outcome_weight(state, size, qubits, outcome, num_threads);
    if (weight != 0) return collapse(state, size, qubits, outcome, weight, num_threads);
    // Made while a failed allocation can still leave the state as it is.
    const std::domain_error impossible(impossible_outcome(qubits, outcome));
    // Amplitudes so small that their squares vanish stay as they are.
    const Selection kept = select_outcome(qubits, outcome);
    for_each_block(size, size, num_threads, [&](Index begin, Index end) {
        for (Index i = begin; i < end; ++i) {
            if (!kept.holds(i)) state[i] = 0;
        }
    });
    throw impossible;
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::project(const Qubits& qubits, unsigned long long outcome) {
    _project(state.get(), size, qubits, outcome, num_threads);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::project_then_reset(const Qubits& qubits,
                                                       unsigned long long outcome) {
    project(qubits, outcome);
    move_to_zero(state.get(), size, qubits, outcome, num_threads);
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template T outcome_weight<T>(const std::complex<T>*, unsigned long long, QubitSpan,            \
                                 unsigned long long, int);                                         \
    template void collapse<T>(std::complex<T>*, unsigned long long, QubitSpan, unsigned long long, \
                              T, int);                                                             \
    template void move_to_zero<T>(std::complex<T>*, unsigned long long, QubitSpan,                 \
                                  unsigned long long, int);                                        \
    template void _project<T>(std::complex<T>*, unsigned long long, QubitSpan, unsigned long long, \
                              int);                                                                \
    template void PybindLinAlgStateVectorCPU<T>::project(const Qubits&, unsigned long long);       \
    template void PybindLinAlgStateVectorCPU<T>::project_then_reset(const Qubits&,                 \
                                                                    unsigned long long);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
