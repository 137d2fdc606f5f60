// Probabilities, projections, and what compares states. Probabilities are summed as in one process
// as long as no piece of a sum lies on several ranks: these are small, and up to max_copied_qubits
// the whole state is copied for them.
#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>
#include <pblinalg/reduced_density_matrix.hpp>
#include <stdexcept>

#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "mpi/checks.hpp"
#include "mpi/state.hpp"
#include "readout/distribution.hpp"
#include "readout/probabilities.hpp"
#include "readout/projection.hpp"

namespace pblinalg::mpi {

using cpu::bit;
using cpu::count_bits;

namespace {

/// Amplitudes that one message carries for an inner product.
constexpr Index max_piece = Index{1} << 16;

/// The bits under `qubits` that hold `outcome`, the first listed one the most significant.
Index pattern_of(std::span<const unsigned int> qubits, std::uint64_t outcome) {
    Index pattern = 0;
    for (std::size_t j = qubits.size(); j-- > 0; outcome >>= 1)
        pattern |= (outcome & 1) << qubits[j];
    return pattern;
}

}  // namespace

template <class T>
T StateVector<T>::State::weight(Index mask, Index values) {
    const unsigned int n = layout.n_qubits();
    const Index all = cpu::low_mask(n), inside = cpu::low_mask(local_bits());
    const cpu::IndexWalk walk{all & ~mask, values};
    const Index pieces = cpu::piece_count(walk.count(), in_pieces);
    const Index free_ranks = bit(count_bits(walk.free_mask & ~inside));
    if (pieces < free_ranks && n <= max_copied_qubits) {
        const auto copy = whole();
        return cpu::sum_over_pieces<T>(
            walk.count(), walk.count(), in_pieces, [&](Index begin, Index end) {
                return cpu::sum_probabilities(cpu::amplitude_view(copy->state.get(), n), walk,
                                              begin, end);
            });
    }
    sort();
    const Index own_pieces = std::max<Index>(pieces / free_ranks, 1);
    const cpu::IndexWalk own{walk.free_mask & inside, values & inside};
    const bool counts = (number() << local_bits() & mask) == (values & ~inside);
    std::vector<T> sums, all_sums;
    together(comm(), [&] {
        sums.resize(own_pieces);
        all_sums.resize(own_pieces * static_cast<Index>(communicator.size()));
        if (!counts) return;
        sums = cpu::results_of_pieces<T>(own.count(), own_pieces,
                                         cpu::workers_for(own.count(), num_threads),
                                         [&](Index begin, Index end) {
                                             return cpu::sum_probabilities(view(), own, begin, end);
                                         });
    });
    MPI_Allgather(sums.data(), static_cast<int>(own_pieces), mpi_type<T>(), all_sums.data(),
                  static_cast<int>(own_pieces), mpi_type<T>(), comm());
    T total = 0;
    for (Index i = 0; i < static_cast<Index>(communicator.size()); ++i) {
        if ((i << local_bits() & mask) != (values & ~inside)) continue;
        const T* const from = all_sums.data() + layout.numbers.rank_of(i) * own_pieces;
        for (Index p = 0; p < own_pieces; ++p)
            total += from[p];
    }
    return total;
}

template <class T>
T StateVector<T>::total_probability() {
    return distribution({})[0];
}

template <class T>
T StateVector<T>::probability(std::uint64_t outcome, const Qubits& qubits) {
    state_->agree_on(qubits, {outcome}, "the list of qubits or the outcome");
    return state_->weight(mask_of(qubits), pattern_of(qubits, outcome));
}

template <class T>
std::complex<double> StateVector<T>::inner(StateVector& other) {
    if (other.nqubits() != nqubits() || other.ranks() != ranks()) {
        throw std::invalid_argument("the other state has " + std::to_string(other.nqubits()) +
                                    " qubits on " + std::to_string(other.ranks()) +
                                    " ranks; expected " + std::to_string(nqubits()) + " on " +
                                    std::to_string(ranks()));
    }
    int order = MPI_UNEQUAL;
    MPI_Comm_compare(state_->comm(), other.state_->comm(), &order);
    if (order != MPI_CONGRUENT && order != MPI_IDENT)
        throw std::invalid_argument("the other state lies on other ranks, or in another order");
    State& a = *state_;
    State& b = *other.state_;
    a.sort();
    b.sort();
    // Blocks of equal numbers may lie on different ranks.
    const auto from = static_cast<int>(b.layout.numbers.rank_of(a.number()));
    const auto to = static_cast<int>(a.layout.numbers.rank_of(b.number()));
    const Index length = std::min<Index>(a.local_size(), max_piece);
    const auto count = static_cast<int>(2 * length);
    std::vector<Amplitude> piece;
    together(a.comm(), [&] { piece.resize(length); });
    std::complex<double> sum;
    for (Index begin = 0; begin < a.local_size(); begin += length) {
        MPI_Sendrecv(&b.amplitudes[begin], count, mpi_type<T>(), to, 0, piece.data(), count,
                     mpi_type<T>(), from, 0, a.comm(), MPI_STATUS_IGNORE);
        double re = 0, im = 0;
        for (Index i = 0; i < length; ++i) {
            const std::complex<double> left(a.amplitudes[begin + i]), right(piece[i]);
            re += left.real() * right.real() + left.imag() * right.imag();
            im += left.real() * right.imag() - left.imag() * right.real();
        }
        sum += std::complex(re, im);
    }
    MPI_Allreduce(MPI_IN_PLACE, &sum, 2, MPI_DOUBLE, MPI_SUM, state_->comm());
    return sum;
}

template <class T>
std::vector<std::complex<double>> StateVector<T>::reduced_density_matrix(const Qubits& qubits) {
    const auto listed = static_cast<unsigned int>(qubits.size());
    std::vector<std::complex<double>> result;
    std::optional<cpu::PybindLinAlgStateVectorCPU<T>> own;
    state_->agree_on(qubits, {}, "the list of qubits");
    together(state_->comm(), [&] {
        require_list_within(qubits, nqubits(), local_qubits());
        result.resize(bit(2 * listed));
        own.emplace(0u);
    });
    const Qubits places = state_->hold(qubits);
    // The amplitudes of this rank as a state of its own, lent to it.
    own->nqubits = local_qubits();
    own->size = state_->local_size();
    own->num_threads = state_->num_threads;
    own->state = cpu::AlignedArray<Amplitude>(state_->amplitudes.get(), [](Amplitude*) {});
    together(state_->comm(),
             [&] { pblinalg::reduced_density_matrix(*own, places, result.data()); });
    in_messages(result.size(), [&](std::size_t begin, int count) {
        MPI_Allreduce(MPI_IN_PLACE, &result[begin], 2 * count, MPI_DOUBLE, MPI_SUM, state_->comm());
    });
    return result;
}

template <class T>
std::vector<T> StateVector<T>::State::outcome_sums(std::span<const unsigned int> qubits) {
    const unsigned int n = layout.n_qubits(), l = local_bits();
    const Index inside = cpu::low_mask(l);
    Qubits reversed;
    std::vector<T> result;
    together(comm(), [&] {
        reversed.assign(qubits.rbegin(), qubits.rend());
        result.resize(bit(static_cast<unsigned int>(qubits.size())));
    });
    const Index listed = mask_of(qubits);
    const Index free = cpu::low_mask(n) & ~listed;
    const cpu::SVSequence<std::complex<T>> everything{nullptr, n, bit(n)};
    const Index pieces = cpu::outcome_pieces(everything, reversed, in_pieces);
    const Index free_ranks = bit(count_bits(free & ~inside));
    if (pieces < free_ranks && n <= max_copied_qubits) {
        const auto copy = whole();
        together(comm(), [&] {
            const auto all = cpu::amplitude_view(copy->state.get(), n);
            const cpu::TeamScratch scratch(1, cpu::outcome_scratch_bytes(all, reversed, in_pieces));
            cpu::outcome_probabilities(all, reversed, in_pieces, result.data(), scratch.of(0));
        });
        return result;
    }
    sort();
    // The pieces of this rank as further outcomes, told apart by the highest qubits that are not
    // listed.
    const Index own_pieces = std::max<Index>(pieces / free_ranks, 1);
    Index piece_qubits = free & inside;
    while (bit(count_bits(piece_qubits)) > own_pieces)
        piece_qubits &= piece_qubits - 1;
    Qubits own_list;
    std::vector<T> sums;
    Index own_outcomes = bit(count_bits(listed & inside));
    together(comm(), [&] {
        for (const Index part : {listed & inside, piece_qubits}) {
            for (Index rest = part; rest != 0; rest &= rest - 1)
                own_list.push_back(static_cast<unsigned int>(std::countr_zero(rest)));
        }
        sums.resize(own_outcomes * own_pieces);
        const cpu::TeamScratch scratch(1, cpu::outcome_scratch_bytes(view(), own_list, 1));
        cpu::outcome_probabilities(view(), own_list, 1, sums.data(), scratch.of(0));
    });
    // A chain through the ranks that share the listed qubits' values adds piece after piece.
    const Index own = number();
    const Index held = listed >> l;
    const Index free_numbers = free >> l;
    const Index place = cpu::extract_bits(own, free_numbers);
    const auto neighbour = [&](Index other) {
        return static_cast<int>(
            layout.numbers.rank_of((own & held) | cpu::deposit_bits(other, free_numbers)));
    };
    std::vector<T> totals;
    together(comm(), [&] { totals.resize(own_outcomes); });
    in_messages(own_outcomes, [&](std::size_t begin, int count) {
        T* const total = &totals[begin];
        if (place > 0) {
            MPI_Recv(total, count, mpi_type<T>(), neighbour(place - 1), 0, comm(),
                     MPI_STATUS_IGNORE);
        }
        for (Index piece = 0; piece < own_pieces; ++piece) {
            for (int i = 0; i < count; ++i)
                total[i] += sums[piece * own_outcomes + begin + static_cast<std::size_t>(i)];
        }
        if (place + 1 < free_ranks)
            MPI_Send(total, count, mpi_type<T>(), neighbour(place + 1), 0, comm());
    });
    for (Index s = 0; s < own_outcomes && place + 1 == free_ranks; ++s) {
        const Index index = cpu::deposit_bits(s, listed & inside) | (own << l & listed);
        Index outcome = 0;
        for (const unsigned int qubit : qubits)
            outcome = outcome << 1 | (index >> qubit & 1);
        result[outcome] = totals[s];
    }
    or_together(comm(), result);
    return result;
}

template <class T>
std::vector<T> StateVector<T>::distribution(const Qubits& qubits) {
    state_->agree_on(qubits, {}, "the list of qubits");
    std::vector<T> result = state_->outcome_sums(qubits);
    // As the exports do: an entry that is not above 0 is 0.
    for (T& sum : result)
        sum = sum > 0 ? sum : T(0);
    return result;
}

template <class T>
void StateVector<T>::project(const Qubits& qubits, std::uint64_t outcome) {
    state_->agree_on(qubits, {outcome}, "the list of qubits or the outcome");
    const Index mask = mask_of(qubits), values = pattern_of(qubits, outcome);
    const T weight = state_->weight(mask, values);
    const Layout& layout = state_->layout;
    const bool mine = (state_->number() & layout.rank_places(mask)) == layout.rank_places(values);
    const cpu::Selection kept{layout.local_places(mask), layout.local_places(values)};
    std::complex<T>* const amplitudes = state_->amplitudes.get();
    const Index size = state_->local_size();
    if (weight != 0) {
        // Elsewhere nothing agrees with the outcome.
        const cpu::Selection here = mine ? kept : cpu::Selection{0, 1};
        const T root = std::sqrt(weight);
        cpu::for_each_block(size, size, state_->num_threads, [&](Index begin, Index end) {
            cpu::dispatch([&]<cpu::InstructionSet set>() {
                cpu::divide_matching<set>(cpu::parts(amplitudes), size, here, begin, end, root);
            });
        });
        return;
    }
    // Amplitudes so small that their squares vanish stay as they are.
    for (Index i = 0; i < size; ++i) {
        if (!mine || !kept.holds(i)) amplitudes[i] = 0;
    }
    throw std::domain_error(cpu::impossible_outcome(qubits, outcome));
}

template <class T>
void StateVector<T>::project_then_reset(const Qubits& qubits, std::uint64_t outcome) {
    project(qubits, outcome);
    GateList list;
    for (Index rest = pattern_of(qubits, outcome); rest != 0; rest &= rest - 1)
        list.add(GateKind::X, static_cast<unsigned int>(std::countr_zero(rest)));
    run(list);
}

#define PBLINALG_INSTANTIATE(T)                                                                 \
    template T StateVector<T>::State::weight(Index, Index);                                     \
    template T StateVector<T>::total_probability();                                             \
    template T StateVector<T>::probability(std::uint64_t, const Qubits&);                       \
    template std::complex<double> StateVector<T>::inner(StateVector&);                          \
    template std::vector<std::complex<double>> StateVector<T>::reduced_density_matrix(          \
        const Qubits&);                                                                         \
    template std::vector<T> StateVector<T>::State::outcome_sums(std::span<const unsigned int>); \
    template std::vector<T> StateVector<T>::distribution(const Qubits&);                        \
    template void StateVector<T>::project(const Qubits&, std::uint64_t);                        \
    template void StateVector<T>::project_then_reset(const Qubits&, std::uint64_t);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
