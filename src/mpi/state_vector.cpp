// A state's life, its arrangement, and the ways to set and copy amplitudes.
#include <algorithm>
#include <bit>
#include <chrono>
#include <new>
#include <stdexcept>
#include <utility>

#include "circuits/plan.hpp"
#include "core/bit_placement.hpp"
#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "mpi/checks.hpp"
#include "mpi/exchange.hpp"
#include "mpi/state.hpp"

namespace pblinalg::mpi {

using cpu::bit;

namespace {

/// The bits of the ranks' numbers.
unsigned int rank_bits_of(const Communicator& communicator, unsigned int nqubits) {
    require_same(communicator.get(), nqubits, "the number of qubits");
    const auto size = static_cast<unsigned int>(communicator.size());
    if (!std::has_single_bit(size)) {
        throw std::invalid_argument("the number of ranks is " + std::to_string(size) +
                                    "; expected a power of two");
    }
    const auto bits = static_cast<unsigned int>(std::countr_zero(size));
    require_qubits(nqubits, bits);
    if (nqubits >= 64) throw std::bad_alloc();
    return bits;
}

}  // namespace

template <class T>
StateVector<T>::State::State(MPI_Comm comm, unsigned int nqubits, int num_threads)
    : communicator(comm),
      layout(nqubits, rank_bits_of(communicator, nqubits)),
      amplitudes(nullptr, cpu::aligned_array_delete<std::complex<T>>),
      num_threads(num_threads) {
    const int workers = cpu::plan_workers<T>(local_bits(), num_threads);
    together(this->comm(),
             [&] { amplitudes = cpu::new_zeroed_array<std::complex<T>>(local_size(), workers); });
    std::uint64_t seed =
        static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
    MPI_Bcast(&seed, 1, MPI_UINT64_T, 0, this->comm());
    rng.seed(seed);
    if (rank() == 0) amplitudes[0] = 1;
}

template <class T>
void StateVector<T>::State::agree_on(std::span<const unsigned int> qubits,
                                     std::initializer_list<std::uint64_t> others,
                                     const char* what) const {
    together(comm(), [&] { require_list(qubits, layout.n_qubits()); });
    Digest digest;
    digest.add_all(qubits);
    digest.add_all(others);
    require_same(comm(), digest.value(), what);
}

template <class T>
void StateVector<T>::State::clear(bool basis_state_0) {
    layout = Layout(layout.n_qubits(), layout.rank_bits);
    cpu::for_each_block(local_size(), local_size(), num_threads, [&](Index begin, Index end) {
        std::fill(&amplitudes[begin], &amplitudes[end], std::complex<T>());
    });
    if (basis_state_0 && rank() == 0) amplitudes[0] = 1;
}

template <class T>
void StateVector<T>::State::run_here(cpu::Program<T> program, Accuracy accuracy) {
    program.nqubits = local_bits();
    const int workers = cpu::plan_workers<T>(local_bits(), num_threads);
    const cpu::Plan<T> plan(std::move(program),
                            cpu::plan_shape<T>(local_bits(), workers, accuracy));
    plan.run(amplitudes.get(), workers, plan.program().factors.data(), {});
}

template <class T>
void StateVector<T>::State::bring_in(Index qubits) {
    std::vector<BitSwap> swaps;
    Index out = layout.local_qubits() & ~qubits;
    for (unsigned int q = 0; q < layout.n_qubits(); ++q) {
        if (!(qubits >> q & 1) || layout.is_local(q)) continue;
        swaps.push_back({layout.place[static_cast<unsigned int>(std::countr_zero(out))],
                         layout.place[q] - local_bits()});
        out &= out - 1;
    }
    std::optional<cpu::TeamScratch> buffer;
    together(comm(), [&] { buffer.emplace(1, exchange_buffer_bytes<T>(local_bits())); });
    exchange(comm(), amplitudes.get(), local_bits(), swaps, layout.numbers, rank(),
             static_cast<std::byte*>(buffer->of(0)));
    layout.apply(swaps);
}

template <class T>
auto StateVector<T>::State::hold(std::span<const unsigned int> qubits) -> Qubits {
    Index within = mask_of(qubits);
    for (Index others = layout.local_qubits() & ~within; cpu::count_bits(within) < local_bits();
         others &= others - 1)
        within |= cpu::lowest_bit(others);
    bring_in(within);
    Qubits places;
    for (const unsigned int qubit : qubits)
        places.push_back(layout.place[qubit]);
    return places;
}

template <class T>
void StateVector<T>::State::sort(Index qubits, bool descending) {
    bring_in(qubits);
    // What holds once the amplitudes have moved.
    Layout sorted = layout;
    cpu::Program<T> program;
    unsigned int next_local = 0, next_rank = local_bits();
    for (unsigned int i = 0; i < layout.n_qubits(); ++i) {
        const unsigned int q = descending ? layout.n_qubits() - 1 - i : i;
        const bool inside = sorted.is_local(q);
        const unsigned int to = inside ? next_local++ : next_rank++;
        const unsigned int from = sorted.place[q];
        if (from == to) continue;
        if (inside) {
            program.operations.push_back(
                {.action = cpu::Action::SWAP,
                 .inverted = true,
                 .targets = {static_cast<unsigned char>(from), static_cast<unsigned char>(to)},
                 .target_bits = bit(from) | bit(to)});
        } else {
            sorted.numbers.exchange(from - local_bits(), to - local_bits());
        }
        const unsigned int other = sorted.qubits_by_place()[to];
        std::swap(sorted.place[q], sorted.place[other]);
    }
    if (!program.operations.empty()) together(comm(), [&] { run_here(std::move(program)); });
    layout = std::move(sorted);
}

template <class T>
StateVector<T>::StateVector(MPI_Comm comm, unsigned int nqubits, int num_threads)
    : state_(std::make_unique<State>(comm, nqubits, num_threads)) {}

template <class T>
StateVector<T>::~StateVector() = default;
template <class T>
StateVector<T>::StateVector(StateVector&&) noexcept = default;
template <class T>
StateVector<T>& StateVector<T>::operator=(StateVector&&) noexcept = default;

template <class T>
StateVector<T> StateVector<T>::copy() const {
    StateVector result(state_->comm(), nqubits(), state_->num_threads);
    State& to = *result.state_;
    to.layout = state_->layout;
    std::copy_n(state_->amplitudes.get(), state_->local_size(), to.amplitudes.get());
    to.rng = state_->rng;
    return result;
}

template <class T>
unsigned int StateVector<T>::nqubits() const {
    return state_->layout.n_qubits();
}
template <class T>
unsigned int StateVector<T>::local_qubits() const {
    return state_->local_bits();
}
template <class T>
int StateVector<T>::rank() const {
    return state_->communicator.rank();
}
template <class T>
int StateVector<T>::ranks() const {
    return state_->communicator.size();
}
template <class T>
void StateVector<T>::set_num_threads(int num_threads) {
    state_->num_threads = num_threads;
}
template <class T>
void StateVector<T>::seed(std::uint64_t value) {
    require_same(state_->comm(), value, "the seed");
    state_->rng.seed(value);
}

template <class T>
void StateVector<T>::reset() {
    state_->clear();
}

template <class T>
void StateVector<T>::set_amplitudes(std::span<const Amplitude> amplitudes) {
    together(state_->comm(),
             [&] { require_count(amplitudes.size(), bit(nqubits()), "amplitudes"); });
    Digest digest;
    for (const Amplitude amplitude : amplitudes) {
        digest.add_number(amplitude.real());
        digest.add_number(amplitude.imag());
    }
    require_same(state_->comm(), digest.value(), "what amplitudes holds");
    state_->clear(false);
    const Index base = state_->number() << local_qubits();
    for (Index i = 0; i < state_->local_size(); ++i)
        state_->amplitudes[i] = amplitudes[cpu::reverse_bits(base | i, nqubits())];
}

template <class T>
auto StateVector<T>::amplitudes(std::span<const std::uint64_t> indices) -> std::vector<Amplitude> {
    const Layout& layout = state_->layout;
    const Index own = layout.fixed_bits(state_->number());
    const Index fixed = ~layout.local_qubits();
    std::vector<Amplitude> values;
    together(state_->comm(), [&] {
        for (const std::uint64_t index : indices) {
            if (index >= bit(nqubits())) {
                throw std::invalid_argument("index " + std::to_string(index) +
                                            ": expected a value below " +
                                            std::to_string(bit(nqubits())));
            }
        }
        values.resize(indices.size());
    });
    Digest digest;
    digest.add_all(indices);
    require_same(state_->comm(), digest.value(), "the list of indices");
    for (std::size_t k = 0; k < indices.size(); ++k) {
        const Index index = cpu::reverse_bits(indices[k], nqubits());
        if ((index & fixed) == own) values[k] = state_->amplitudes[layout.local_places(index)];
    }
    or_together(state_->comm(), values);
    return values;
}

template <class T>
void StateVector<T>::State::collect(std::complex<T>* all, int root) {
    std::vector<int> counts, places;
    together(comm(), [&] {
        for (int r = 0; r < communicator.size(); ++r) {
            counts.push_back(1);
            places.push_back(static_cast<int>(layout.numbers.number_of(static_cast<Index>(r))));
        }
    });
    // In two steps: there may be more amplitudes than an int counts.
    const Index page = std::min(local_size(), Index{1} << 16);
    MPI_Datatype pages, block;
    MPI_Type_contiguous(static_cast<int>(page * sizeof(std::complex<T>)), MPI_BYTE, &pages);
    MPI_Type_contiguous(static_cast<int>(local_size() / page), pages, &block);
    MPI_Type_commit(&block);
    if (root < 0) {
        MPI_Allgatherv(amplitudes.get(), 1, block, all, counts.data(), places.data(), block,
                       comm());
    } else {
        MPI_Gatherv(amplitudes.get(), 1, block, all, counts.data(), places.data(), block, root,
                    comm());
    }
    MPI_Type_free(&block);
    MPI_Type_free(&pages);
}

template <class T>
auto StateVector<T>::State::whole() -> std::unique_ptr<cpu::PybindLinAlgStateVectorCPU<T>> {
    sort();
    std::unique_ptr<cpu::PybindLinAlgStateVectorCPU<T>> copy;
    together(comm(), [&] {
        copy = std::make_unique<cpu::PybindLinAlgStateVectorCPU<T>>(layout.n_qubits());
        copy->set_num_threads(2);
    });
    collect(copy->state.get(), -1);
    return copy;
}

template <class T>
auto StateVector<T>::gather(int root) -> std::vector<Amplitude> {
    together(state_->comm(), [&] {
        if (root >= ranks()) {
            throw std::invalid_argument("root = " + std::to_string(root) +
                                        ": expected a rank below " + std::to_string(ranks()));
        }
    });
    require_same(state_->comm(), static_cast<std::uint64_t>(root), "the root");
    state_->sort_by_caller();
    std::vector<Amplitude> result;
    together(state_->comm(), [&] {
        if (root < 0 || root == rank()) result.resize(bit(nqubits()));
    });
    state_->collect(result.data(), root);
    return result;
}

template struct StateVector<float>::State;
template struct StateVector<double>::State;
#define PBLINALG_INSTANTIATE(T)                                                 \
    template StateVector<T>::StateVector(MPI_Comm, unsigned int, int);          \
    template StateVector<T>::~StateVector();                                    \
    template StateVector<T>::StateVector(StateVector&&) noexcept;               \
    template StateVector<T>& StateVector<T>::operator=(StateVector&&) noexcept; \
    template unsigned int StateVector<T>::nqubits() const;                      \
    template unsigned int StateVector<T>::local_qubits() const;                 \
    template int StateVector<T>::rank() const;                                  \
    template int StateVector<T>::ranks() const;                                 \
    template StateVector<T> StateVector<T>::copy() const;                       \
    template void StateVector<T>::set_num_threads(int);                         \
    template void StateVector<T>::seed(std::uint64_t);                          \
    template void StateVector<T>::reset();                                      \
    template void StateVector<T>::set_amplitudes(std::span<const Amplitude>);   \
    template std::vector<std::complex<T>> StateVector<T>::amplitudes(           \
        std::span<const std::uint64_t>);                                        \
    template std::vector<std::complex<T>> StateVector<T>::gather(int);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
