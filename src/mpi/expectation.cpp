// Exact expectation values of Pauli sums. Terms that flip bits of the ranks' numbers meet
// amplitudes of another rank: the two send each other half of theirs, piece by piece, and form half
// of the products each.
#include <algorithm>
#include <bit>
#include <map>
#include <stdexcept>

#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "kernels/pauli_kernels.hpp"
#include "mpi/state.hpp"
#include "observables/pauli_sums.hpp"

namespace pblinalg::mpi {

using cpu::bit;
using cpu::count_bits;

namespace {

/// Blocks of this many amplitudes, as bits, are multiplied at a time and sent.
template <class T>
constexpr unsigned int block_bits = sizeof(T) == sizeof(double) ? 9 : 10;

/// Terms that flip the same bits and sum the same part of the products.
template <class T>
struct Group {
    std::vector<Index> sign_masks;
    std::vector<std::size_t> terms;
};

template <class T>
struct alignas(64) Sums {
    T parts[cpu::sums_per_term<T>] = {};
};

}  // namespace

/// <P> of the listed terms, which flip bits of the ranks' numbers, as far as this rank adds to
/// them.
/// @param flip  the same for all terms, in the state's index.
template <class T>
void StateVector<T>::State::add_crossing_terms(const WObservable<T>& observable, Index flip,
                                               const std::vector<std::size_t>& terms,
                                               std::span<T> values) {
    const unsigned int l = local_bits();
    const Index inside = cpu::low_mask(l);
    const int partner = static_cast<int>(layout.numbers.rank_of(number() ^ flip >> l));
    // The highest bit within ranks tells whose products are whose: of each pair of amplitudes, the
    // rank with the lower number takes those whose own amplitude has it 0, the other one the rest.
    const Index half = bit(l - 1);
    const bool lower = number() < (number() ^ flip >> l);
    const Index own_half = lower ? 0 : half ^ (flip & half);
    const unsigned int block = std::min(l - 1, block_bits<T>);
    const Index block_size = bit(block);
    Group<T> groups[2];
    for (const std::size_t t : terms) {
        Group<T>& group = groups[observable.phase_powers[t] % 2];
        group.sign_masks.push_back(observable.sign_masks[t]);
        group.terms.push_back(t);
    }
    std::vector<Sums<T>> sums[2];
    std::optional<cpu::TeamScratch> scratch;
    together(comm(), [&] {
        for (int part = 0; part < 2; ++part)
            sums[part].resize(groups[part].terms.size());
        scratch.emplace(1, 4 * block_size * sizeof(std::complex<T>));
    });
    auto* const memory = static_cast<std::complex<T>*>(scratch->of(0));
    std::complex<T>* const incoming[] = {memory, memory + block_size};
    auto* const products = reinterpret_cast<T*>(memory + 2 * block_size);
    // Block b of this rank's half meets the partner's block with the flipped number; the partner's
    // own b-th block meets the flipped one of this rank.
    const Index n_blocks = half >> block;
    const Index block_flip = (flip & inside) >> block;
    const Index partner_half = own_half ^ half ^ (flip & half);
    const auto bytes = static_cast<int>(block_size * sizeof(std::complex<T>));
    MPI_Request requests[2][2];
    const auto start = [&](Index b) {
        const Index theirs = (partner_half >> block | b) ^ block_flip;
        MPI_Irecv(incoming[b % 2], bytes, MPI_BYTE, partner, 0, comm(), &requests[b % 2][0]);
        MPI_Isend(amplitudes.get() + (theirs << block), bytes, MPI_BYTE, partner, 0, comm(),
                  &requests[b % 2][1]);
    };
    start(0);
    for (Index b = 0; b < n_blocks; ++b) {
        if (b + 1 < n_blocks) start(b + 1);
        MPI_Waitall(2, requests[b % 2], MPI_STATUSES_IGNORE);
        const Index own = own_half >> block | b;
        const cpu::BlockPair<T> pair{cpu::parts(amplitudes.get() + (own << block)),
                                     cpu::parts(incoming[b % 2]), block,
                                     number() << (l - block) | own, flip & (block_size - 1)};
        for (int part = 0; part < 2; ++part) {
            if (groups[part].terms.empty()) continue;
            cpu::dispatch([&]<cpu::InstructionSet set>() {
                cpu::add_signed_products<set, T>(pair, part == 1, groups[part].sign_masks.data(),
                                                 groups[part].terms.size(), sums[part][0].parts,
                                                 products);
            });
        }
    }
    for (int part = 0; part < 2; ++part) {
        for (std::size_t k = 0; k < groups[part].terms.size(); ++k) {
            const std::size_t t = groups[part].terms[k];
            const Index signs = observable.sign_masks[t];
            const T sum = cpu::dispatch([&]<cpu::InstructionSet set>() {
                return cpu::fold_signed_sums<set, T>(sums[part][k].parts, signs, part == 1);
            });
            // Both amplitudes of a pair give the same product but for a sign.
            const bool halves_add = (count_bits(flip & signs) % 2 != 0) == (part == 1);
            const T whole = halves_add ? sum + sum : sum - sum;
            const unsigned int power = observable.phase_powers[t] % 4;
            values[t] = power == 1 || power == 2 ? -whole : whole;
        }
    }
}

template <class T>
std::complex<T> StateVector<T>::expectation_value(const WObservable<T>& observable) {
    const unsigned int n = nqubits(), l = local_qubits();
    const std::size_t n_terms = observable.flip_masks.size();
    Digest digest;
    digest.add_all(observable.flip_masks);
    digest.add_all(observable.sign_masks);
    digest.add_all(observable.phase_powers);
    require_same(state_->comm(), digest.value(), "the observable");
    together(state_->comm(), [&] {
        for (std::size_t t = 0; t < n_terms; ++t) {
            if ((observable.flip_masks[t] | observable.sign_masks[t]) & ~cpu::low_mask(n)) {
                throw std::invalid_argument("term " + std::to_string(t) + " acts beyond the " +
                                            std::to_string(n) + " qubits");
            }
        }
    });
    if (n <= max_copied_for_terms || l < cpu::min_pauli_block_bits + 1)
        return state_->whole()->expectation_value(observable);
    state_->sort();
    std::map<Index, std::vector<std::size_t>> crossing;
    WObservable<T> here;
    std::vector<std::size_t> here_terms;
    std::vector<T> values;
    together(state_->comm(), [&] {
        values.resize(n_terms);
        const Index inside = cpu::low_mask(l);
        for (std::size_t t = 0; t < n_terms; ++t) {
            if (observable.flip_masks[t] >> l != 0) {
                crossing[observable.flip_masks[t]].push_back(t);
                continue;
            }
            here_terms.push_back(t);
            here.flip_masks.push_back(observable.flip_masks[t]);
            here.sign_masks.push_back(observable.sign_masks[t] & inside);
            here.phase_powers.push_back(observable.phase_powers[t]);
        }
        if (here_terms.empty()) return;
        const std::vector<T> own =
            cpu::pauli_sums(state_->amplitudes.get(), here, state_->local_size(),
                            state_->num_threads == 1 ? 2 : state_->num_threads);
        for (std::size_t k = 0; k < own.size(); ++k) {
            const Index signs = observable.sign_masks[here_terms[k]] >> l;
            values[here_terms[k]] =
                cpu::has_odd_parity(signs & state_->number()) ? -own[k] : own[k];
        }
    });
    for (const auto& [flip, terms] : crossing)
        state_->add_crossing_terms(observable, flip, terms, values);
    // In the order of the ranks' numbers.
    std::vector<T> all;
    together(state_->comm(), [&] {
        if (rank() == 0) all.resize(n_terms * static_cast<std::size_t>(ranks()));
    });
    const auto count = static_cast<int>(n_terms);
    MPI_Gather(values.data(), count, mpi_type<T>(), all.data(), count, mpi_type<T>(), 0,
               state_->comm());
    std::complex<T> total = 0;
    if (rank() == 0) {
        for (std::size_t t = 0; t < n_terms; ++t) {
            T value = 0;
            for (Index i = 0; i < static_cast<Index>(ranks()); ++i)
                value += all[state_->layout.numbers.rank_of(i) * n_terms + t];
            total += observable.coefficients[t] * value;
        }
        total += observable.constant;
    }
    MPI_Bcast(&total, 2, mpi_type<T>(), 0, state_->comm());
    return total;
}

template std::complex<float> StateVector<float>::expectation_value(const WObservable<float>&);
template std::complex<double> StateVector<double>::expectation_value(const WObservable<double>&);

}  // namespace pblinalg::mpi
