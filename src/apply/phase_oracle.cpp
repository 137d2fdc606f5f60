#include "apply/phase_oracle.hpp"

#include <vector>

#include "apply/gates.hpp"
#include "core/bit_placement.hpp"
#include "core/parallel.hpp"
#include "kernels/loading_kernels.hpp"

namespace pblinalg::cpu {
namespace {

/// The marked amplitudes, one bit each: word extract_bits(c, chunk_mask) holds the bits of every
/// chunk c of `marks_per_word` consecutive amplitudes.
class MarkedAmplitudes {
  public:
    /// A listed number p stands for bit nqubits-1-p of an array index: deliberately the caller's
    /// reversed order, not that of the gates. A number at or above nqubits reads 0.
    MarkedAmplitudes(std::span<const unsigned long long> marked, QubitSpan qubits,
                     unsigned int nqubits) {
        Index listed = 0;
        for (const unsigned int qubit : qubits) {
            if (qubit < nqubits) listed |= bit(nqubits - 1 - qubit);
        }
        chunk_mask_ = listed >> marks_bits;
        words_.resize(bit(count_bits(chunk_mask_)));

        // The amplitudes of a chunk that differ only in bits that the oracle does not read.
        const Index unread = (marks_per_word - 1) & ~listed;
        Index neighbours = 0;
        Index place = 0;
        do {
            neighbours |= bit(static_cast<unsigned int>(place));
            place = next_subset(place, unread);
        } while (place != 0);

        // Key bits to array bits and back. A value that does not come back unchanged has no index:
        // it is too large, sets a qubit that reads 0, or contradicts itself on a repeated one.
        BitPlacement index_of_key;
        BitPlacement key_of_index;
        unsigned int key_bit = 0;
        // The last listed qubit is the least significant bit of the key.
        for (auto qubit = qubits.rbegin(); qubit != qubits.rend() && key_bit < 64; ++qubit) {
            if (*qubit < nqubits) {
                index_of_key.add(key_bit, nqubits - 1 - *qubit);
                key_of_index.add(nqubits - 1 - *qubit, key_bit);
            }
            ++key_bit;
        }
        for (const Index value : marked) {
            const Index index = index_of_key(value);
            if (key_of_index(index) != value) continue;
            words_[extract_bits(index >> marks_bits, chunk_mask_)] |=
                neighbours << (index & (marks_per_word - 1));
        }
    }

    const Index* words() const { return words_.data(); }
    Index chunk_mask() const { return chunk_mask_; }

  private:
    Index chunk_mask_;
    std::vector<Index> words_;
};

}  // namespace

template <class T>
void negate_marked_values(std::complex<T>* amplitudes, unsigned int nqubits,
                          std::span<const unsigned long long> marked, QubitSpan qubits,
                          int nthreads) {
    if (marked.empty()) return;
    const MarkedAmplitudes marks(marked, qubits, nqubits);
    const Index size = bit(nqubits);
    if (size < marks_per_word) {
        for (unsigned int i = 0; i < size; ++i) {
            if (marks.words()[0] & bit(i)) amplitudes[i] = -amplitudes[i];
        }
        return;
    }
    for_each_block(size / marks_per_word, size, nthreads, [&](Index begin, Index end) {
        dispatch([&]<InstructionSet set>() {
            negate_marked<set, T>(parts(amplitudes), marks.words(), marks.chunk_mask(), begin, end);
        });
    });
}

#define PBLINALG_INSTANTIATE(T)                                           \
    template void negate_marked_values<T>(std::complex<T>*, unsigned int, \
                                          std::span<const unsigned long long>, QubitSpan, int);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
