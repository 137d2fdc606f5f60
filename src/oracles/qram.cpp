// QRAM loading. The work is split over the sources, the amplitudes whose data register is 0: each
// address of each configuration of the other qubits, so that all workers are busy even when every
// qubit is listed.
#include "oracles/qram.hpp"

#include <algorithm>
#include <cmath>
#include <pblinalg/state_vector_cpu.hpp>

#include "core/bit_placement.hpp"
#include "core/parallel.hpp"
#include "core/state_iterator.hpp"

namespace pblinalg::cpu {
namespace {

using orb::core::iterator::GroupMasks;
using orb::core::iterator::QubitSpan;

struct Registers {
    GroupMasks sources;  ///< the indices whose data bits are 0
    BitPlacement address_of;
    BitPlacement place_data;
    Index n_addresses;
    Index n_data_values;

    Registers(const std::vector<unsigned int>& qubits, unsigned int data_width,
              unsigned int n_qubits)
        : Registers(QubitSpan(qubits).first(qubits.size() - data_width),
                    QubitSpan(qubits).last(data_width), n_qubits) {}

    Registers(QubitSpan address, QubitSpan data, unsigned int n_qubits)
        : sources(data, {}, n_qubits),
          address_of(BitPlacement::gather(address)),
          place_data(BitPlacement::scatter(data)),
          n_addresses(bit(static_cast<unsigned int>(address.size()))),
          n_data_values(bit(static_cast<unsigned int>(data.size()))) {}
};

/// The square root of the sum of a row's squares, or 1 when that sum is not above 0.
template <class T>
T root_of_row(const std::complex<double>* row, Index n_entries) {
    T sum = 0;
    for (Index d = 0; d < n_entries; ++d) {
        sum += static_cast<T>(row[d].real() * row[d].real());
    }
    return sum > 0 ? std::sqrt(sum) : T(1);
}

}  // namespace

template <class T>
void _binary_qram(std::complex<T>* state, const unsigned long long* words, unsigned int n_qubits,
                  const std::vector<unsigned int>& qubits, const unsigned int& data_width,
                  int num_threads) {
    const Registers registers(qubits, data_width, n_qubits);
    const GroupMasks& sources = registers.sources;
    for_each_block(
        sources.count, bit(n_qubits), num_threads,
        [&](Index begin, Index end) {
            Index source = sources.base(begin);
            for (Index i = begin; i < end; ++i) {
                const std::complex<T> amplitude = state[source];
                // Cleared first: a word of 0 then leaves the amplitude where it was.
                state[source] = 0;
                state[source | registers.place_data(words[registers.address_of(source)])] =
                    amplitude;
                source = next_subset(source, sources.free_mask);
            }
        },
        1);
}

template <class T>
void _qram(std::complex<T>* state, const std::complex<double>* amplitudes, unsigned int n_qubits,
           const std::vector<unsigned int>& qubits, const unsigned int& data_width,
           int num_threads) {
    const Registers registers(qubits, data_width, n_qubits);
    const GroupMasks& sources = registers.sources;
    const Index row_size = registers.n_data_values;
    std::vector<T> roots(registers.n_addresses);
    for_each_block(
        roots.size(), roots.size() * row_size, num_threads,
        [&](Index begin, Index end) {
            for (Index a = begin; a < end; ++a) {
                roots[a] = root_of_row<T>(amplitudes + a * row_size, row_size);
            }
        },
        1);

    // Several sources at a time, so that rows far apart in memory share the walk over data values.
    constexpr Index sources_at_once = 8;
    for_each_block(
        sources.count, bit(n_qubits), num_threads,
        [&](Index begin, Index end) {
            std::complex<T>* at[sources_at_once];
            const std::complex<double>* rows[sources_at_once];
            std::complex<T> scaled[sources_at_once];
            Index source = sources.base(begin);
            for (Index i = begin; i < end; i += sources_at_once) {
                const Index count = std::min(end - i, sources_at_once);
                for (Index b = 0; b < count; ++b) {
                    const Index address = registers.address_of(source);
                    at[b] = state + source;
                    rows[b] = amplitudes + address * row_size;
                    scaled[b] = *at[b] / roots[address];
                    source = next_subset(source, sources.free_mask);
                }
                for (Index d = 0; d < row_size; ++d) {
                    const Index place = registers.place_data(d);
                    for (Index b = 0; b < count; ++b) {
                        at[b][place] = scaled[b] * static_cast<T>(rows[b][d].real());
                    }
                }
            }
        },
        1);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_binary_qram(const unsigned long long* words,
                                                      const Qubits& qubits,
                                                      const unsigned int& data_width) {
    _binary_qram<T>(state.get(), words, nqubits, qubits, data_width, num_threads);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_qram(const std::complex<double>* amplitudes,
                                               const Qubits& qubits,
                                               const unsigned int& data_width) {
    _qram<T>(state.get(), amplitudes, nqubits, qubits, data_width, num_threads);
}

#define PBLINALG_INSTANTIATE(T)                                                                \
    template void _binary_qram<T>(std::complex<T>*, const unsigned long long*, unsigned int,   \
                                  const std::vector<unsigned int>&, const unsigned int&, int); \
    template void _qram<T>(std::complex<T>*, const std::complex<double>*, unsigned int,        \
                           const std::vector<unsigned int>&, const unsigned int&, int);        \
    template void PybindLinAlgStateVectorCPU<T>::apply_binary_qram(                            \
        const unsigned long long*, const Qubits&, const unsigned int&);                        \
    template void PybindLinAlgStateVectorCPU<T>::apply_qram(const std::complex<double>*,       \
                                                            const Qubits&, const unsigned int&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
