// What a rank holds of a state, and how its qubits are arranged for readouts that want them in
// order.
#pragma once

#include <initializer_list>
#include <pblinalg/mpi/state_vector.hpp>
#include <pblinalg/state_vector_cpu.hpp>
#include <random>

#include "circuits/lowering.hpp"
#include "core/aligned_array.hpp"
#include "mpi/agreement.hpp"
#include "mpi/files.hpp"
#include "mpi/layout.hpp"
#include "mpi/rank_plan.hpp"
#include "readout/views.hpp"

namespace pblinalg::mpi {

/// Sums whose pieces would lie on several ranks are taken from a copy of the whole state, up to
/// this number of qubits.
inline constexpr unsigned int max_copied_qubits = 20;

/// Any request but 1: sums in pieces.
inline constexpr int in_pieces = 2;

template <class T>
MPI_Datatype mpi_type() {
    return sizeof(T) == sizeof(double) ? MPI_DOUBLE : MPI_FLOAT;
}

/// Numbers each of which is zero on all ranks but one: gives all of them to all, bit by bit.
template <class Number>
void or_together(MPI_Comm comm, std::vector<Number>& numbers) {
    in_messages(numbers.size(), [&](std::size_t begin, int count) {
        MPI_Allreduce(MPI_IN_PLACE, &numbers[begin], count * static_cast<int>(sizeof(Number)),
                      MPI_BYTE, MPI_BOR, comm);
    });
}

/// What a run applies.
struct ListRun {
    const GateList& list;
    std::span<const double> values;
    Accuracy accuracy;
};

template <class T>
struct StateVector<T>::State {
    State(MPI_Comm comm, unsigned int nqubits, int num_threads);

    MPI_Comm comm() const { return communicator.get(); }
    auto rank() const { return static_cast<Index>(communicator.rank()); }
    Index number() const { return layout.numbers.number_of(rank()); }
    unsigned int local_bits() const { return layout.local_bits(); }
    Index local_size() const { return cpu::bit(local_bits()); }

    /// Errors: std::invalid_argument for listed qubits that are not those of the state, each once,
    /// and where they or the `others` differ between ranks, `what` in the text.
    void agree_on(std::span<const unsigned int> qubits, std::initializer_list<std::uint64_t> others,
                  const char* what) const;
    /// |0...0>, or zeros everywhere.
    void clear(bool basis_state_0 = true);
    /// Runs the operations of `program`, which is one of n qubits and loses its SWAPs.
    void run(cpu::Program<T>& program, const T* factors);
    /// Runs a program of the bits of this rank, on this rank alone.
    void run_here(cpu::Program<T> program, Accuracy accuracy = Accuracy::exact);
    /// @param between  asked after every pass but the last.
    /// @return the pass after which somebody wants to stop, if any; `layout` is then what it is
    ///         there.
    const RankPass* run_passes(const RankPlan& plan, const cpu::Program<T>& program,
                               const T* factors, Accuracy accuracy, const Callback& between);
    /// Applies gates [first, end) of a list.
    /// @return the gates done, those before `first` among them: `end` or, when stopped, maybe less.
    RunReport run(const ListRun& run, std::size_t first, std::size_t end, const Callback& between);
    /// Applies the gates that `progress` lacks and saves in between.
    RunReport go_on(const ListRun& run, RunProgress progress, const Checkpoint& checkpoint,
                    const Callback& between_passes, StateVector& owner);
    /// Brings `qubits`, n - p of them, within ranks.
    void bring_in(Index qubits);
    /// Brings listed qubits within ranks, n - p of them at most, with the fewest exchanged bits.
    /// @return their places.
    Qubits hold(std::span<const unsigned int> qubits);
    /// As `bring_in`, the lowest of them on bit 0 and so on, and likewise the others in the numbers
    /// of ranks; or all in descending order.
    void sort(Index qubits, bool descending = false);
    /// Every amplitude at its index: the rank with number r holds the r-th block.
    void sort() { sort(cpu::low_mask(local_bits())); }
    /// The same in caller order.
    void sort_by_caller() {
        sort(cpu::low_mask(layout.n_qubits()) & ~cpu::low_mask(layout.rank_bits), true);
    }
    /// This rank's part of a sorted state.
    auto view() const { return cpu::amplitude_view(amplitudes.get(), local_bits()); }
    /// Calls `load` as one of `oracles/qram.hpp` with this rank's rows of a table of whole ones.
    /// @param name  that of the table in errors.
    template <class Entry, class Load>
    void load_table(std::span<const Entry> table, const Qubits& qubits, unsigned int data_width,
                    Index row_size, const char* name, const Load& load);
    /// Collects the ranks' blocks of a sorted state in index order, on `root` or, with -1, on all.
    void collect(std::complex<T>* all, int root);
    /// A copy of all amplitudes, each at its index, whose sums are taken in pieces.
    std::unique_ptr<cpu::PybindLinAlgStateVectorCPU<T>> whole();
    /// The sum of the squared magnitudes of the amplitudes with `values` under `mask`.
    T weight(Index mask, Index values);

    /// The sums of squared magnitudes of the 2^L outcomes on L listed, distinct qubits, the first
    /// listed one the most significant.
    std::vector<T> outcome_sums(std::span<const unsigned int> qubits);

    /// <P> of every term.
    std::vector<T> term_values(const WObservable<T>& observable);
    T defined_term_value(const WObservable<T>& observable, std::size_t term);
    class BatchSums;
    /// @param one_by_one  running sums are added up through all ranks, as one process does.
    std::vector<std::uint64_t> sample(std::uint64_t shots, std::span<const unsigned int> qubits,
                                      int root, bool one_by_one);

    Communicator communicator;
    Layout layout;
    cpu::AlignedArray<std::complex<T>> amplitudes;
    int num_threads;
    std::mt19937_64 rng;
};

}  // namespace pblinalg::mpi
