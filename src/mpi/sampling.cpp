// Shots. Every rank takes the same draws, sorts them, and answers those that fall to its
// amplitudes.
#include "readout/sampling.hpp"

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "core/parallel.hpp"
#include "mpi/state.hpp"
#include "readout/draws.hpp"
#include "readout/probabilities.hpp"

namespace pblinalg::mpi {

using cpu::bit;

namespace {

struct Draw {
    std::uint64_t value;
    std::uint64_t shot;
};

/// From an index to the outcome over listed qubits, or over all in caller order.
Index outcome_of(Index index, std::span<const unsigned int> qubits, unsigned int n_qubits) {
    if (qubits.empty()) return cpu::reverse_bits(index, n_qubits);
    Index outcome = 0;
    for (const unsigned int qubit : qubits)
        outcome = outcome << 1 | (index >> qubit & 1);
    return outcome;
}

/// Where the running sum stands, and how many of the sorted draws are answered.
template <class T>
struct Progress {
    T sum;
    std::uint64_t answered;
};

/// Adds up the probabilities of a view one by one and calls `found(index, draw)` for every draw
/// that they reach.
template <class T, class Found>
void scan(const cpu::SVSequence<std::complex<T>>& view, std::span<const Draw> draws,
          Progress<T>& progress, const Found& found) {
    constexpr Index page = 1024;
    alignas(64) T values[page];
    T sum = progress.sum;
    std::uint64_t next = progress.answered;
    for (Index first = 0; first < view.size && next < draws.size(); first += page) {
        const Index count = std::min(page, Index{view.size} - first);
        cpu::copy_probabilities(view, first, count, values, first + count);
        T wanted = cpu::unit_interval<T>(draws[next].value);
        for (Index i = 0; i < count; ++i) {
            sum += values[i];
            while (sum >= wanted) {
                found(first + i, draws[next]);
                if (++next == draws.size()) break;
                wanted = cpu::unit_interval<T>(draws[next].value);
            }
            if (next == draws.size()) break;
        }
    }
    progress = {sum, next};
}

/// Calls `scan_block` on one rank after the other, with the running sum that those before leave.
template <class T, class ScanBlock>
void in_turn(const Communicator& communicator, const RankNumbers& numbers,
             const ScanBlock& scan_block) {
    Progress<T> progress{0, 0};
    const auto bytes = static_cast<int>(sizeof progress);
    const Index own = numbers.number_of(static_cast<Index>(communicator.rank()));
    const auto rank_of = [&](Index other) { return static_cast<int>(numbers.rank_of(other)); };
    if (own > 0) {
        MPI_Recv(&progress, bytes, MPI_BYTE, rank_of(own - 1), 0, communicator.get(),
                 MPI_STATUS_IGNORE);
    }
    scan_block(progress);
    if (own + 1 < static_cast<Index>(communicator.size()))
        MPI_Send(&progress, bytes, MPI_BYTE, rank_of(own + 1), 0, communicator.get());
}

}  // namespace

template <class T>
std::vector<std::uint64_t> StateVector<T>::State::sample(std::uint64_t shots,
                                                         std::span<const unsigned int> qubits,
                                                         int root, bool one_by_one) {
    const unsigned int n = layout.n_qubits();
    const bool receives = root < 0 || root == communicator.rank();
    std::vector<std::uint64_t> outcomes;
    agree_on(qubits, {shots, static_cast<std::uint64_t>(root), one_by_one},
             "the list of qubits, the number of shots or the root");
    together(comm(), [&] {
        if (root >= communicator.size()) {
            throw std::invalid_argument("root = " + std::to_string(root) +
                                        ": expected a rank below " +
                                        std::to_string(communicator.size()));
        }
        if (receives) outcomes.resize(shots);
    });
    sort();
    // Running sums before the blocks of all ranks.
    std::vector<T> starts;
    const Index own = number();
    const auto n_ranks = static_cast<Index>(communicator.size());
    if (!one_by_one) {
        const cpu::IndexWalk all{local_size() - 1, 0};
        T total = 0;
        std::vector<T> totals;
        together(comm(), [&] {
            total = cpu::sum_over_pieces<T>(
                local_size(), local_size(), num_threads == 1 ? 2 : num_threads,
                [&](Index begin, Index end) {
                    return cpu::sum_probabilities(view(), all, begin, end);
                });
            totals.resize(n_ranks);
            starts.assign(n_ranks + 1, 0);
        });
        MPI_Allgather(&total, 1, mpi_type<T>(), totals.data(), 1, mpi_type<T>(), comm());
        for (Index i = 0; i < n_ranks; ++i)
            starts[i + 1] = starts[i] + totals[layout.numbers.rank_of(i)];
    }
    const Index base = own << local_bits();
    const Index last = cpu::low_mask(n);
    std::vector<std::uint64_t> words, found;
    std::vector<Draw> draws;
    for (std::uint64_t first = 0; first < shots; first += words.size()) {
        together(comm(), [&] {
            words.resize(std::min<std::uint64_t>(cpu::max_draws, shots - first));
            draws.clear();
            draws.reserve(words.size());
            found.assign(words.size(), 0);
        });
        cpu::take_draws(rng, words.data(), words.size());
        for (std::size_t shot = 0; shot < words.size(); ++shot) {
            if (cpu::unit_interval<T>(words[shot]) > 0) {
                draws.push_back({words[shot], shot});
            } else if (own == 0) {
                // Deliberately the index of which every bit is 1, whether the state has it or not.
                found[shot] = outcome_of(~Index{0}, qubits, n);
            }
        }
        std::ranges::sort(draws, {}, &Draw::value);
        const auto answer = [&](Index index, const Draw& draw) {
            found[draw.shot] = outcome_of(base | index, qubits, n);
        };
        const auto answer_rest = [&](std::uint64_t from, std::uint64_t to) {
            for (; from < to; ++from)
                answer(local_size() - 1, draws[from]);
        };
        if (one_by_one) {
            in_turn<T>(communicator, layout.numbers, [&](Progress<T>& progress) {
                scan(view(), std::span<const Draw>(draws), progress, answer);
                if (base + local_size() - 1 == last) answer_rest(progress.answered, draws.size());
            });
        } else {
            const auto until = [&](Index block) {
                if (block == n_ranks) return draws.size();
                return static_cast<std::size_t>(
                    std::ranges::partition_point(draws,
                                                 [&](const Draw& draw) {
                                                     return !(cpu::unit_interval<T>(draw.value) >
                                                              starts[block]);
                                                 }) -
                    draws.begin());
            };
            const std::size_t end = until(own + 1);
            Progress<T> progress{starts[own], own == 0 ? 0 : until(own)};
            scan(view(), std::span<const Draw>(draws).first(end), progress, answer);
            answer_rest(progress.answered, end);
        }
        const auto count = static_cast<int>(found.size());
        // Each is zero on all ranks but one.
        std::uint64_t* const to = receives ? outcomes.data() + first : nullptr;
        if (root < 0) {
            MPI_Allreduce(found.data(), to, count, MPI_UINT64_T, MPI_BOR, comm());
        } else {
            MPI_Reduce(found.data(), to, count, MPI_UINT64_T, MPI_BOR, root, comm());
        }
    }
    return outcomes;
}

template <class T>
std::vector<std::uint64_t> StateVector<T>::sample(std::uint64_t shots, const Qubits& qubits,
                                                  int root) {
    return state_->sample(shots, qubits, root, true);
}

template <class T>
std::vector<std::uint64_t> StateVector<T>::sample_by_pieces(std::uint64_t shots,
                                                            const Qubits& qubits, int root) {
    return state_->sample(shots, qubits, root, false);
}

template <class T>
std::uint64_t StateVector<T>::measure(const Qubits& qubits) {
    return state_->sample(1, qubits, -1, true)[0];
}

template <class T>
std::uint64_t StateVector<T>::measure_by_pieces(const Qubits& qubits) {
    return state_->sample(1, qubits, -1, false)[0];
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template std::vector<std::uint64_t> StateVector<T>::sample(std::uint64_t, const Qubits&, int); \
    template std::vector<std::uint64_t> StateVector<T>::sample_by_pieces(std::uint64_t,            \
                                                                         const Qubits&, int);      \
    template std::uint64_t StateVector<T>::measure(const Qubits&);                                 \
    template std::uint64_t StateVector<T>::measure_by_pieces(const Qubits&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
