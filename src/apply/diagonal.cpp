#include "apply/diagonal.hpp"

#include <algorithm>
#include <stdexcept>

#include "apply/gates.hpp"

namespace pblinalg::cpu {
namespace {

/// The longest diagonal that the uncontrolled kernel takes.
constexpr std::size_t max_diagonal = 256;

/// A diagonal over any list of qubits, repeated ones among them; apart from the path of one qubit.
template <class T>
[[gnu::noinline]] void multiply_by_pattern(std::complex<T>* amplitudes,
                                           const orb::core::iterator::GroupMasks& groups,
                                           int nthreads, QubitSpan qubits, MatrixSpan<T> diag) {
    const Index mask = gate_mask(qubits);
    const std::size_t slots = std::max<std::size_t>(diag.size(), bit(count_bits(mask)));
    if (slots <= 2) {
        std::complex<T> sorted_diag[2];
        fill_sorted_diag(sorted_diag, qubits, diag, mask);
        multiply_sorted_diag(amplitudes, groups, nthreads, sorted_diag, mask);
        return;
    }
    std::vector<std::complex<T>> sorted_diag(slots);
    fill_sorted_diag(sorted_diag.data(), qubits, diag, mask);
    multiply_sorted_diag(amplitudes, groups, nthreads, sorted_diag.data(), mask);
}

}  // namespace

Index gate_mask(QubitSpan qubits) {
    Index mask = 0;
    for (const unsigned int qubit : qubits)
        mask ^= bit(qubit);
    return mask;
}

std::vector<std::uint32_t> get_sorted_indices(QubitSpan qubits, Index mask) {
    const auto k = static_cast<unsigned int>(qubits.size());
    if (k >= 62) throw std::length_error("get_sorted_indices: 62 or more qubits");
    std::vector<std::uint32_t> rows(std::size_t{1} << k, 0);
    for (Index j = 0; j < rows.size(); ++j) {
        Index pattern = 0;
        for (unsigned int p = 0; p < k; ++p)
            pattern |= ((j >> p) & 1) << qubits[p];
        // Where qubits cancel, several j share a slot and the last one stays.
        rows[extract_bits(pattern, mask)] = static_cast<std::uint32_t>(reverse_bits(j, k));
    }
    return rows;
}

template <class Amplitude>
void fill_sorted_diag(Amplitude* out, QubitSpan qubits, std::span<const Amplitude> diag,
                      Index mask) {
    if (qubits.size() <= 1) {
        // The slot of a single qubit is its row: no table is needed on the path of small gates.
        std::copy(diag.begin(), diag.end(), out);
        return;
    }
    if (diag.empty()) return;
    const std::vector<std::uint32_t> rows = get_sorted_indices(qubits, mask);
    for (Index slot = 0; slot < bit(count_bits(mask)); ++slot) {
        if (rows[slot] < diag.size()) out[slot] = diag[rows[slot]];
    }
}

template void fill_sorted_diag<std::complex<float>>(std::complex<float>*, QubitSpan,
                                                    MatrixSpan<float>, Index);
template void fill_sorted_diag<std::complex<double>>(std::complex<double>*, QubitSpan,
                                                     MatrixSpan<double>, Index);

template <class T>
void multiply_sorted_diag(std::complex<T>* amplitudes,
                          const orb::core::iterator::GroupMasks& groups, int nthreads,
                          const std::complex<T>* sorted_diag, Index mask) {
    for_each_block(groups.count, groups.count, nthreads, [&](Index begin, Index end) {
        dispatch([&]<InstructionSet set>() {
            multiply_diagonal<set, T>(parts(amplitudes), groups, begin, end, parts(sorted_diag),
                                      mask);
        });
    });
}

template <class T>
void _DiagGate<true>::apply(std::complex<T>* amplitudes, QubitSpan qubits,
                            unsigned long long nqbits, int nthreads, MatrixSpan<T> diag) {
    if (diag.size() > max_diagonal) throw std::runtime_error("Diagonal is too large for _DiagGate");
    apply_controlled(amplitudes, qubits, nqbits, nthreads, QubitSpan(), diag);
}

template <class T>
void _DiagGate<true>::apply_controlled(std::complex<T>* amplitudes, QubitSpan qubits,
                                       unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                       MatrixSpan<T> diag) {
    orb::core::iterator::GroupMasks groups(QubitSpan(), ctrls, nqbits);
    if (qubits.size() == 1 && diag.size() == 2 && groups.counts_through(qubits[0])) {
        // One qubit: two streams of amplitudes, each with its factor in a register.
        groups.take_out(qubits[0]);
        update_all_groups<GateDiagonal, T>(amplitudes, {groups, {qubits[0], 0}}, nthreads, diag);
    } else {
        multiply_by_pattern(amplitudes, groups, nthreads, qubits, diag);
    }
}

#define PBLINALG_INSTANTIATE(T)                                                                   \
    template void multiply_sorted_diag<T>(std::complex<T>*,                                       \
                                          const orb::core::iterator::GroupMasks&, int,            \
                                          const std::complex<T>*, Index);                         \
    template void _DiagGate<true>::apply<T>(std::complex<T>*, QubitSpan, unsigned long long, int, \
                                            MatrixSpan<T>);                                       \
    template void _DiagGate<true>::apply_controlled<T>(                                           \
        std::complex<T>*, QubitSpan, unsigned long long, int, QubitSpan, MatrixSpan<T>);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
