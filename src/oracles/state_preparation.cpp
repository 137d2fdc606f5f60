// State preparation: the norm of every group of amplitudes, then the caller's amplitudes times it.
#include "oracles/state_preparation.hpp"

#include <pblinalg/state_vector_cpu.hpp>

#include "core/parallel.hpp"
#include "kernels/blocks/loading_blocks.hpp"
#include "kernels/gate_kernels.hpp"

namespace pblinalg::cpu {

using orb::core::iterator::StateIterator;

template <class T>
void _state_preparation(std::complex<T>* state, const std::complex<double>* amplitudes,
                        unsigned int n_qubits, const std::vector<unsigned int>& qubits,
                        int num_threads) {
    const StateIterator groups(qubits, {}, n_qubits);
    Index mask = 0;
    for (const unsigned int qubit : qubits)
        mask |= bit(qubit);
    const Index n_inputs = bit(count_bits(mask));
    const auto bases_from = [&](Index first, Index* bases) {
        for (unsigned int b = 0; b < groups_at_once; ++b)
            bases[b] = groups.base(first + b);
    };
    const auto norms = [&](const Index* bases, unsigned int n_bases, T* roots) {
        dispatch([&]<InstructionSet set>() {
            norms_of_groups<set, T>(parts(state), bases, n_bases, groups.offsets.data(),
                                    groups.n_offsets, roots);
        });
    };
    const auto write = [&](const Index* bases, unsigned int n_bases, const T* roots, Index begin,
                           Index end) {
        dispatch([&]<InstructionSet set>() {
            write_groups<set, T>(parts(state), bases, n_bases, mask, parts(amplitudes), roots,
                                 begin, end);
        });
    };

    const Index size = bit(n_qubits);
    if (groups.count <= groups_at_once) {
        // A group's sum has one worker, in its defined order; the writes are shared by all.
        Index bases[groups_at_once];
        T roots[groups_at_once];
        const auto n_bases = static_cast<unsigned int>(groups.count);
        bases_from(0, bases);
        for_each_block(
            groups.count, size, num_threads,
            [&](Index begin, Index end) {
                norms(bases + begin, static_cast<unsigned int>(end - begin), roots + begin);
            },
            1);
        for_each_block(n_inputs, size, num_threads,
                       [&](Index begin, Index end) { write(bases, n_bases, roots, begin, end); });
        return;
    }
    for_each_block(
        groups.count, size, num_threads,
        [&](Index begin, Index end) {
            Index bases[groups_at_once];
            T roots[groups_at_once];
            for (Index first = begin; first < end; first += groups_at_once) {
                bases_from(first, bases);
                norms(bases, groups_at_once, roots);
                write(bases, groups_at_once, roots, 0, n_inputs);
            }
        },
        groups_at_once);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_state_preparation(std::complex<double>* amplitudes,
                                                            const Qubits& qubits) {
    _state_preparation<T>(state.get(), amplitudes, nqubits, qubits, num_threads);
}

#define PBLINALG_INSTANTIATE(T)                                                                 \
    template void _state_preparation<T>(std::complex<T>*, const std::complex<double>*,          \
                                        unsigned int, const std::vector<unsigned int>&, int);   \
    template void PybindLinAlgStateVectorCPU<T>::apply_state_preparation(std::complex<double>*, \
                                                                         const Qubits&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
