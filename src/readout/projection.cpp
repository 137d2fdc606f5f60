// Projection: one pass that sums what stays, one that divides it and clears the rest.
#include "readout/projection.hpp"

#include <algorithm>
#include <cmath>
#include <pblinalg/state_vector_cpu.hpp>
#include <stdexcept>

#include "core/complex_math.hpp"
#include "core/parallel.hpp"
#include "kernels/blocks/norm_blocks.hpp"
#include "kernels/blocks/walk_groups.hpp"

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

std::string impossible_outcome(QubitSpan qubits, unsigned long long outcome) {
    std::string list;
    for (const unsigned int qubit : qubits) {
        if (!list.empty()) list += ", ";
        list += std::to_string(qubit);
    }
    return "Outcome " + std::to_string(outcome) + " on qubits (" + list + ") has probability zero.";
}

}  // namespace

template <class T>
void _project(std::complex<T>* state, unsigned long long size, QubitSpan qubits,
              unsigned long long outcome, int num_threads) {
    const Selection kept = select_outcome(qubits, outcome);
    const IndexWalk walk{(size - 1) & ~kept.mask, kept.pattern};
    T sum = 0;
    if (kept.pattern < size) {
        sum = sum_over_pieces<T>(
            walk.count(), walk.count(), num_threads, [&](Index begin, Index end) {
                return dispatch([&]<InstructionSet set>() {
                    return sum_square_magnitudes<set>(static_cast<const T*>(parts(state)), size,
                                                      walk, begin, end);
                });
            });
    }
    if (sum == 0) {
        // Made while a failed allocation can still leave the state as it is.
        const std::domain_error impossible(impossible_outcome(qubits, outcome));
        // Amplitudes so small that their squares vanish stay as they are.
        for_each_block(size, size, num_threads, [&](Index begin, Index end) {
            for (Index i = begin; i < end; ++i) {
                if (!kept.holds(i)) state[i] = 0;
            }
        });
        throw impossible;
    }
    const T root = std::sqrt(sum);
    for_each_block(size, size, num_threads, [&](Index begin, Index end) {
        dispatch([&]<InstructionSet set>() {
            divide_matching<set>(parts(state), size, kept, begin, end, root);
        });
    });
}

template void _project<float>(std::complex<float>*, unsigned long long, QubitSpan,
                              unsigned long long, int);
template void _project<double>(std::complex<double>*, unsigned long long, QubitSpan,
                               unsigned long long, int);

template <class T>
void PybindLinAlgStateVectorCPU<T>::project(const Qubits& qubits, unsigned long long outcome) {
    _project(state.get(), size, qubits, outcome, num_threads);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::project_then_reset(const Qubits& qubits,
                                                       unsigned long long outcome) {
    project(qubits, outcome);
    // Deliberately the whole value: one of which only bits above the list are set goes on, and
    // every amplitude, already in its place, is cleared.
    if (outcome == 0) return;
    const Selection kept = select_outcome(qubits, outcome);
    const Index free_mask = (size - 1) & ~kept.mask;
    std::complex<T>* const amplitudes = state.get();
    // The bits below the lowest listed qubit count through neighbours.
    const Index run = std::min(lowest_bit(kept.mask | size), Index{size});
    const Index run_mask = run - 1;
    const Index runs = bit(count_bits(free_mask & ~run_mask));
    for_each_block(runs * run, runs * run, num_threads, [&](Index begin, Index end) {
        while (begin < end) {
            const Index length = std::min(end - begin, run - (begin & run_mask));
            const Index to = deposit_bits(begin, free_mask);
            std::complex<T>* const from = amplitudes + (to | kept.pattern);
            if (kept.pattern != 0) std::copy_n(from, length, amplitudes + to);
            std::fill_n(from, length, std::complex<T>());
            begin += length;
        }
    });
}

#define PBLINALG_INSTANTIATE(T)                                                              \
    template void PybindLinAlgStateVectorCPU<T>::project(const Qubits&, unsigned long long); \
    template void PybindLinAlgStateVectorCPU<T>::project_then_reset(const Qubits&,           \
                                                                    unsigned long long);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
