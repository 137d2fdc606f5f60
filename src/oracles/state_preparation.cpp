// State preparation: the norm of every group of amplitudes, then the caller's amplitudes times it.
#include "oracles/state_preparation.hpp"

#include <algorithm>
#include <cmath>
#include <pblinalg/state_vector_cpu.hpp>

#include "core/bit_placement.hpp"
#include "core/complex_math.hpp"
#include "core/parallel.hpp"
#include "kernels/loading_kernels.hpp"

namespace pblinalg::cpu {
namespace {

using orb::core::iterator::QubitSpan;
using orb::core::iterator::StateIterator;

/// Up to `groups_at_once` groups: the amplitudes at bases[b] | bits of the listed qubits.
struct GroupRun {
    Index bases[groups_at_once];
    unsigned int n_bases;

    GroupRun(Index first, Index free_mask, Index count)
        : n_bases(static_cast<unsigned int>(std::min<Index>(count, groups_at_once))) {
        for (Index& base : bases) {
            base = first;
            first = next_subset(first, free_mask);
        }
    }
};

template <class T>
class StatePreparation {
  public:
    StatePreparation(T* state, const double* amplitudes, QubitSpan qubits, unsigned int n_qubits)
        : state_(state),
          amplitudes_(amplitudes),
          chunk_qubits_(qubits.last(std::min<std::size_t>(qubits.size(), max_chunk_qubits))),
          chunk_(chunk_qubits_, {}, n_qubits),
          groups_(qubits, {}, n_qubits),
          n_chunks_(bit(static_cast<unsigned int>(qubits.size() - chunk_qubits_.size()))) {
        for (const unsigned int qubit : qubits)
            mask_ |= bit(qubit);
        // The last qubit before those of the chunk is bit 0 of the chunk's number.
        for (std::size_t p = 0; p + chunk_qubits_.size() < qubits.size(); ++p) {
            const std::size_t place = qubits.size() - chunk_qubits_.size() - 1 - p;
            chunk_offset_.add(static_cast<unsigned int>(p), qubits[place]);
        }
    }

    const orb::core::iterator::GroupMasks& groups() const { return groups_; }
    Index n_inputs() const { return bit(count_bits(mask_)); }

    /// roots[b] = the norm of group b of `run`, its squares added up in the order of the list.
    void norms(const GroupRun& run, T* roots) const {
        T sums[groups_at_once] = {};
        for (Index c = 0; c < n_chunks_; ++c) {
            GroupRun shifted = run;
            for (Index& base : shifted.bases)
                base |= chunk_offset_(c);
            dispatch([&]<InstructionSet set>() {
                add_norms<set, T>(state_, shifted.bases, run.n_bases, chunk_.offsets.data(),
                                  chunk_.n_offsets, sums);
            });
        }
        for (unsigned int b = 0; b < run.n_bases; ++b)
            roots[b] = std::sqrt(sums[b]);
    }

    /// Writes inputs [begin, end) to every group of `run`.
    void write(const GroupRun& run, const T* roots, Index begin, Index end) const {
        dispatch([&]<InstructionSet set>() {
            write_groups<set, T>(state_, run.bases, run.n_bases, mask_, amplitudes_, roots, begin,
                                 end);
        });
    }

  private:
    // The offsets of a group come in chunks of the last listed qubits, so that their table stays
    // small.
    static constexpr std::size_t max_chunk_qubits = 10;

    T* state_;
    const double* amplitudes_;
    QubitSpan chunk_qubits_;
    StateIterator chunk_;
    orb::core::iterator::GroupMasks groups_;
    Index n_chunks_;
    BitPlacement chunk_offset_;
    Index mask_ = 0;
};

}  // namespace

template <class T>
void _state_preparation(std::complex<T>* state, const std::complex<double>* amplitudes,
                        unsigned int n_qubits, const std::vector<unsigned int>& qubits,
                        int num_threads) {
    const StatePreparation<T> preparation(parts(state), parts(amplitudes), qubits, n_qubits);
    const auto& groups = preparation.groups();
    const Index n_inputs = preparation.n_inputs();
    const Index size = bit(n_qubits);
    if (groups.count <= groups_at_once) {
        // The sum of a group needs its order and so one worker; the writes are shared by all.
        T roots[groups_at_once];
        for_each_block(
            groups.count, size, num_threads,
            [&](Index begin, Index end) {
                const GroupRun run(groups.base(begin), groups.free_mask, end - begin);
                preparation.norms(run, roots + begin);
            },
            1);
        const GroupRun all(0, groups.free_mask, groups.count);
        for_each_block(n_inputs, size, num_threads,
                       [&](Index begin, Index end) { preparation.write(all, roots, begin, end); });
        return;
    }
    for_each_block(
        groups.count, size, num_threads,
        [&](Index begin, Index end) {
            T roots[groups_at_once];
            Index base = groups.base(begin);
            for (Index first = begin; first < end; first += groups_at_once) {
                const GroupRun run(base, groups.free_mask, groups_at_once);
                preparation.norms(run, roots);
                preparation.write(run, roots, 0, n_inputs);
                base = next_subset(run.bases[groups_at_once - 1], groups.free_mask);
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
