// The state vector over the ranks of an MPI communicator. Every member is collective: all ranks
// call it, in the same order, with the same arguments, and get the same result or the same error.
#pragma once

#include <mpi.h>

#include <complex>
#include <cstdint>
#include <functional>
#include <memory>
#include <pblinalg/circuit.hpp>
#include <pblinalg/export.hpp>
#include <pblinalg/gate_list.hpp>
#include <pblinalg/observable.hpp>
#include <pblinalg/run.hpp>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace pblinalg::mpi {

/// Saves the state every so many gates of a run, so that a later one can go on from there.
struct Checkpoint {
    std::string path;
    std::size_t every = 0;  ///< gates between two saves, 0 for none
};

/// An n-qubit register in precision `T` (float or double), 2^(n-p) amplitudes on each of 2^p ranks.
///
/// Qubit order is that of `cpu::PybindLinAlgStateVectorCPU`: arrays, indices and outcomes over all
/// qubits are in caller order, qubit 0 the most significant bit; over listed qubits the first
/// listed one is. Gates give the bits that one process gives, whatever the number of ranks.
///
/// Errors are raised on every rank alike: std::invalid_argument where ranks were given different
/// lists, values, tables, outcomes or numbers of shots, before anything is done. Where a rank runs
/// out of memory it is std::bad_alloc, and the state is undefined when that happens inside `run`.
template <class T>
class PBLINALG_EXPORT StateVector {
  public:
    using Amplitude = std::complex<T>;
    using Qubits = std::vector<unsigned int>;
    using Estimate = std::pair<Amplitude, Amplitude>;
    using Callback = std::function<bool(std::size_t)>;

    /// |0...0>, with a generator seeded from the clock of rank 0.
    /// @param num_threads  worker threads of this rank: the memory lies next to those that are
    /// there
    ///                    when it is first written.
    /// Errors: std::invalid_argument unless there are 2^p ranks and at least p + 2 qubits, or where
    /// ranks ask for different numbers; std::bad_alloc; std::logic_error without MPI_Init.
    StateVector(MPI_Comm comm, unsigned int nqubits, int num_threads = 1);
    ~StateVector();
    StateVector(StateVector&&) noexcept;
    StateVector& operator=(StateVector&&) noexcept;
    /// A state of its own over the same ranks, its generator where this one's stands.
    /// Errors: std::bad_alloc.
    StateVector copy() const;

    unsigned int nqubits() const;
    unsigned int local_qubits() const;  ///< n - p
    int rank() const;
    int ranks() const;
    /// Worker threads of this rank.
    void set_num_threads(int num_threads);
    /// Of the generator behind shots and measurements.
    /// Errors: std::invalid_argument where it differs between ranks.
    void seed(std::uint64_t value);

    // ---- Preparing -----------------------------------------------------------------------------

    void reset();
    /// Loads 2^n amplitudes, given whole on every rank.
    void set_amplitudes(std::span<const Amplitude> amplitudes);

    /// Sets a product state: character k, one of "0", "1", "+" and "-", governs qubit n-1-k. Any
    /// other character, or a missing one, leaves its qubit free with factor 1.
    void reset_to_str(const std::string& description);
    /// Replaces the amplitudes on `qubits`, for every value of the other qubits, by the 2^m given
    /// ones, whole on every rank, times the norm that was there. Input index: the lowest-numbered
    /// listed qubit is bit 0, whatever the order of the list. Nothing is normalised. The bits are
    /// those of one process.
    ///
    /// Cost: one exchange of as many bits as listed qubits lie on bits of the ranks' numbers.
    /// Errors: std::invalid_argument for qubits that the state does not have or that are listed
    /// twice, for more than n - p of them, and for another number of amplitudes; std::bad_alloc
    /// before any amplitude changes.
    void apply_state_preparation(std::span<const std::complex<double>> amplitudes,
                                 const Qubits& qubits);
    /// Moves the amplitude of each address a from data value 0 to the low `data_width` bits of
    /// words[a]. The last `data_width` listed qubits are the data register, n - p of them at most,
    /// those before it the address; in both the first listed qubit is the least significant bit.
    /// `words` is whole on every rank. Bits, cost (of the data register alone) and errors are those
    /// of `apply_state_preparation`.
    void apply_binary_qram(std::span<const unsigned long long> words, const Qubits& qubits,
                           unsigned int data_width);
    /// Spreads the amplitude of each address a over the data values in proportion to the real parts
    /// of the table's row a (2^data_width entries), normalised by row; as `apply_binary_qram`.
    void apply_qram(std::span<const std::complex<double>> amplitudes, const Qubits& qubits,
                    unsigned int data_width);

    // ---- Running -------------------------------------------------------------------------------

    /// Applies the gates of a list, as `pblinalg::run` does.
    ///
    /// Cost: one exchange, in which each amplitude crosses the network at most once, for as many
    /// gates as have their targets on n - p qubits; `dry_run` tells how many that are. By rounding
    /// gates on different qubits overtake each other, and they are many more.
    /// @param checkpoint  collective saves between gates; `resume` of the same list and values goes
    ///                    on from the last one, to the same bits where runs are exact.
    /// @param between_passes  called by each rank that gave one, at exchanges and, between
    ///                    them, once in a thousand operations, with the number of gates done: where
    ///                    one returns false, all ranks stop once gates that later ones have
    ///                    overtaken are done, too. What it throws is raised on every rank after the
    ///                    same steps.
    /// @param accuracy  by rounding the last digits depend on the number of ranks, too.
    /// Errors: std::invalid_argument where ranks were given different lists or values, for qubits
    /// that the state does not have, for missing values and for matrices on more than n - p qubits.
    RunReport run(const GateList& list, std::span<const double> values = {},
                  const Checkpoint& checkpoint = {}, const Callback& between_passes = {},
                  Accuracy accuracy = Accuracy::exact);
    /// Loads the checkpoint and applies the gates that it lacks.
    /// Errors: those of `load`; std::invalid_argument where it belongs to another list, to other
    /// values or to another accuracy.
    RunReport resume(const GateList& list, std::span<const double> values,
                     const Checkpoint& checkpoint, const Callback& between_passes = {},
                     Accuracy accuracy = Accuracy::exact);
    /// Applies a circuit record.
    /// Errors: std::invalid_argument for an unknown name; the gates before it stay applied.
    void run(const PybindLinAlgWCircuit<T>& circuit);

    // ---- Reading -------------------------------------------------------------------------------

    /// The amplitudes at the given indices, in caller order.
    std::vector<Amplitude> amplitudes(std::span<const std::uint64_t> indices);
    /// All amplitudes in caller order, on rank `root` alone or, with -1, on all. The others get
    /// none.
    std::vector<Amplitude> gather(int root = -1);

    /// The summed squared magnitudes; the root of it is the norm.
    T total_probability();
    /// The probability of `outcome` on the listed qubits.
    T probability(std::uint64_t outcome, const Qubits& qubits);
    /// The 2^L probabilities of the outcomes on L listed, distinct qubits.
    std::vector<T> distribution(const Qubits& qubits);
    /// constant + sum over terms of coefficient * <P>: the bits of one process with any request for
    /// workers but 1 up to 20 qubits, and beyond on at most 1,024 ranks of 2^17 amplitudes or more.
    ///
    /// Cost: terms that flip qubits of the ranks' numbers need amplitudes of other ranks. For each
    /// pass that one process would make over its memory, a rank sends less than it holds.
    std::complex<T> expectation_value(const WObservable<T>& observable);
    /// coefficient * <P> of every term.
    std::vector<Amplitude> terms_expectations_values(const WObservable<T>& observable);

    /// Estimates each term from `nshots` shots in its own basis: (coefficient * mean, coefficient *
    /// standard error), on every rank. The state is rotated and rotated back. The draws are those
    /// of one process with the same seed, and the results where `distribution` has its bits.
    /// Letters from an "I" on are dropped together with the one qubit at that "I".
    ///
    /// Cost: per term two runs of its basis gates and one `distribution` over its qubits, of which
    /// each rank holds 2^L probabilities for L qubits.
    /// Errors: std::invalid_argument for qubits that the state does not have or that a term lists
    /// twice and for more letters than qubits; std::length_error for a term of more than 61 qubits;
    /// std::bad_alloc, the state rotated back unless that happens inside a run.
    std::vector<Estimate> evaluate_terms(std::vector<SimpleTerm<T>> terms, std::uint64_t nshots);

    /// <this|other>. Added up in double; last digits depend on the number of ranks.
    /// Errors: std::invalid_argument for another number of qubits or ranks.
    std::complex<double> inner(StateVector& other);
    /// The state of the listed, distinct qubits, as `pblinalg::reduced_density_matrix` gives it;
    /// last digits depend on the number of ranks. Each rank takes the memory for all of it.
    /// Errors: std::invalid_argument for more than n - p qubits.
    std::vector<std::complex<double>> reduced_density_matrix(const Qubits& qubits);

    /// Outcomes over the listed qubits, or all for an empty list: the shots that one process draws
    /// with the same seed. On rank `root` alone or, with -1, on all.
    ///
    /// Cost: running sums are sequential by definition, so the ranks add up their probabilities one
    /// after the other, 2^n additions in all. `sample_by_pieces` does it at once.
    std::vector<std::uint64_t> sample(std::uint64_t shots, const Qubits& qubits = {},
                                      int root = -1);
    /// As `sample`, from running sums that each rank takes on its own: shots near the bounds of an
    /// amplitude's share may fall to its neighbour.
    std::vector<std::uint64_t> sample_by_pieces(std::uint64_t shots, const Qubits& qubits = {},
                                                int root = -1);
    /// One outcome over the listed qubits; the state stays as it is. Cost: that of `sample`.
    std::uint64_t measure(const Qubits& qubits);
    /// As `measure`, from running sums as those of `sample_by_pieces`.
    std::uint64_t measure_by_pieces(const Qubits& qubits);
    /// Keeps the amplitudes that agree with `outcome` and divides them by the root of their summed
    /// squared magnitudes.
    /// Errors: std::domain_error when that is 0; the state is then 0.
    void project(const Qubits& qubits, std::uint64_t outcome);
    /// `project`, then returns the listed qubits to 0.
    void project_then_reset(const Qubits& qubits, std::uint64_t outcome);

    // ---- Files ---------------------------------------------------------------------------------

    /// Writes one .npy file: the 2^n amplitudes in caller order, as little-endian complex64 or
    /// complex128.
    /// Errors: std::runtime_error, also when the disk is full; an older file of that name is kept
    /// until the new one is whole.
    void save(const std::string& path);
    /// Reads such a file, written by any number of ranks.
    /// Errors: std::runtime_error for a file that cannot be read, is cut short, or holds another
    /// precision or number of amplitudes; the state is kept unless reading itself fails.
    void load(const std::string& path);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

extern template class PBLINALG_EXPORT StateVector<float>;
extern template class PBLINALG_EXPORT StateVector<double>;

}  // namespace pblinalg::mpi
