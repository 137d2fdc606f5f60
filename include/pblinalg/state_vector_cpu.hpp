// The state vector: 2^n amplitudes in memory, changed in place by gates and read by readouts.
// Arguments are trusted: qubits are distinct and below the qubit count unless a member says more.
#pragma once

#include <complex>
#include <map>
#include <memory>
#include <optional>
#include <pblinalg/circuit.hpp>
#include <pblinalg/export.hpp>
#include <pblinalg/observable.hpp>
#include <pblinalg/state_vector.hpp>
#include <string>
#include <utility>
#include <vector>

namespace pblinalg::cpu {

/// An n-qubit register in precision `T` (float or double).
///
/// Qubit q is bit q, of weight 2^q, of an amplitude's index in `state`; qubit 0 is the least
/// significant. Arrays, strings, outcomes and keys over all qubits that are exchanged with the
/// caller are in *caller order*, the bit reversal of that index: there qubit 0 is the most
/// significant bit. Over a listed subset of qubits the first listed one is the most significant
/// bit of an outcome, unless a member says otherwise.
///
/// A gate matrix is row-major; its row and column index has the first listed qubit as the most
/// significant bit. Angles are in radians. An absent control list and an empty one are equal.
///
/// One caller thread uses an object at a time. Gates and readouts run on `num_threads` workers.
/// Amplitudes after a gate do not depend on their number. Probabilities, norms and expectation
/// values round alike for all requests but 1, which keeps its own order of additions; so do the
/// amplitudes that a projection divides by its norm.
/// Allocation failure raises std::bad_alloc before any amplitude changes.
template <class T>
class PBLINALG_EXPORT PybindLinAlgStateVectorCPU : public PybindLinAlgStateVector {
  public:
    using Qubits = std::vector<unsigned int>;
    using OptionalQubits = std::optional<std::vector<unsigned int>>;
    using Matrix = std::vector<std::complex<T>>;

    /// The qubit count n.
    unsigned int nqubits;
    /// The number of amplitudes, 2^n, or 0 after `release_memory`.
    unsigned long long size;
    /// The amplitudes, 64-byte aligned, amplitude of basis state b at index b.
    std::unique_ptr<std::complex<T>[], void (*)(std::complex<T>*)> state;
    /// True when `state` holds a density matrix of m = n/2 qubits, its entry (row, column) at
    /// column * 2^m + row. Set by the caller and honoured by readouts and observables.
    bool density_matrix;
    /// The requested worker count; see `pblinalg::get_num_threads`.
    int num_threads;
    /// Names of the gates that take control qubits.
    std::vector<std::string> named_ctrl_gates;

    // ---- Lifecycle -----------------------------------------------------------------------------

    /// Allocates 2^nqubits amplitudes, all zero; call `reset` before use. The generator is seeded
    /// from the clock and one worker is requested, which clears the memory; to have it touched
    /// first by many, construct 0 qubits, set their number and `resize`. Errors: std::bad_alloc,
    /// also for 64 or more qubits.
    explicit PybindLinAlgStateVectorCPU(unsigned int nqubits);
    ~PybindLinAlgStateVectorCPU() override;

    /// Changes the qubit count. A smaller count keeps the first 2^nqubits amplitudes, a larger one
    /// drops them all and leaves zeros; the same count does nothing.
    /// Errors: std::bad_alloc leaves the new counts in place with no array.
    void resize(unsigned int nqubits) override;

    /// Without a value: basis state 0. With one: `source` is the address of `size` caller-owned
    /// `std::complex<T>` in caller order, copied as they are. A density matrix of m qubits is
    /// given row-major, 2^m entries a row, rows and columns in caller order.
    void reset(std::optional<unsigned long long> source = std::nullopt) override;

    /// Sets a product state, one character per qubit: "0", "1", "+" or "-"; any other character,
    /// or a missing one, leaves its qubit free with factor 1 (the state is then not normalised).
    /// Character k governs qubit n-1-k.
    void reset_to_str(std::string description);

    /// Frees the amplitudes; `resize` to a positive count allocates again.
    void release_memory() override;

    /// "X", "Y", "Z", "H", "S", "T", "RX", "RY", "RZ", "PH".
    std::vector<std::string>& get_named_ctrl_gates() override;

    /// Stores the requested worker count as it is given; 0 or less asks for the OpenMP runtime's
    /// default team.
    void set_num_threads(int num_threads);

    // ---- Text ----------------------------------------------------------------------------------

    /// Writes one line "index: (re,im)" per amplitude, in index order, to standard output.
    void print();
    /// All amplitudes in index order, each followed by a space.
    std::string str();

    // ---- Circuits ------------------------------------------------------------------------------

    /// Applies the gates of `circuit` in order: H, X, Y, Z, RX, RY, RZ, PH, T, CNOT (control
    /// first) and SWAP.
    /// Errors: std::invalid_argument for any other name; the gates before it stay applied. After
    /// std::bad_alloc an unknown number of gates is applied.
    void simulate_circuit(PybindLinAlgWCircuit<T>& circuit);

    // ---- One-qubit gates -----------------------------------------------------------------------
    // With `ctrls`, only amplitudes whose control bits are all 1 change. A control at or above the
    // qubit count is ignored but halves the number of visited groups, lowest first, as long as
    // targets and controls together do not outnumber the qubits.

    void apply_H(unsigned int qubit, OptionalQubits ctrls = std::nullopt);
    void apply_X(unsigned int qubit, OptionalQubits ctrls = std::nullopt);
    void apply_Y(unsigned int qubit, OptionalQubits ctrls = std::nullopt);
    void apply_Z(unsigned int qubit, OptionalQubits ctrls = std::nullopt);
    /// diag(1, i).
    void apply_S(unsigned int qubit, OptionalQubits ctrls = std::nullopt);
    /// diag(1, e^(i pi/4)).
    void apply_T(unsigned int qubit, OptionalQubits ctrls = std::nullopt);
    /// diag(1, e^(i theta)).
    void apply_PH(unsigned int qubit, T theta, OptionalQubits ctrls = std::nullopt);
    /// exp(-i theta X / 2).
    void apply_RX(unsigned int qubit, T theta, OptionalQubits ctrls = std::nullopt);
    /// exp(-i theta Y / 2).
    void apply_RY(unsigned int qubit, T theta, OptionalQubits ctrls = std::nullopt);
    /// exp(-i theta Z / 2) = diag(e^(-i theta/2), e^(i theta/2)).
    void apply_RZ(unsigned int qubit, T theta, OptionalQubits ctrls = std::nullopt);
    /// Maps the Y eigenvectors to the Z eigenvectors: [[1, -i], [1, i]] / sqrt(2).
    void apply_YtoZ(unsigned int qubit, OptionalQubits ctrls = std::nullopt);
    /// The inverse of YtoZ: [[1, 1], [i, -i]] / sqrt(2).
    void apply_ZtoY(unsigned int qubit, OptionalQubits ctrls = std::nullopt);

    // ---- Two- and three-qubit gates ------------------------------------------------------------

    void apply_CNOT(unsigned int control, unsigned int target);
    void apply_CCNOT(unsigned int control1, unsigned int control2, unsigned int target);
    /// Negates the amplitudes with both bits set.
    void apply_CSIGN(unsigned int q1, unsigned int q2);
    void apply_SWAP(unsigned int q1, unsigned int q2);
    void apply_SQRTSWAP(unsigned int q1, unsigned int q2);
    /// Swaps and multiplies the swapped amplitudes by i.
    void apply_ISWAP(unsigned int q1, unsigned int q2);

    // ---- Dense gates ---------------------------------------------------------------------------
    // `matrix` holds 4^k row-major entries for k targets. A matrix whose off-diagonal entries are
    // all zero is applied as a diagonal.

    void apply_1qbit_gate(unsigned int qubit, const Matrix& matrix);
    void apply_2qbit_gate(unsigned int q1, unsigned int q2, const Matrix& matrix);
    /// Errors: std::runtime_error for a diagonal matrix on 9 or more qubits; the state is kept.
    void apply_nqbit_gate(const Qubits& qubits, const Matrix& matrix);
    void apply_1qbit_ctrl_gate(const Qubits& controls, unsigned int target, const Matrix& matrix);
    void apply_2qbit_ctrl_gate(const Qubits& controls, unsigned int q1, unsigned int q2,
                               const Matrix& matrix);
    /// Diagonal matrices of any size are applied.
    void apply_nqbit_ctrl_gate(const Qubits& controls, const Qubits& qubits, const Matrix& matrix);

    // ---- Projection ----------------------------------------------------------------------------

    /// Keeps the amplitudes that agree with `outcome` on `qubits` (first listed qubit most
    /// significant) and divides all by the root of their summed squared magnitudes.
    /// Errors: std::domain_error when that sum is exactly 0; every amplitude is then 0.
    void project(const Qubits& qubits, unsigned long long outcome);
    /// `project`, then returns the listed qubits to 0. An `outcome` of which only bits above the
    /// list are set clears the state.
    void project_then_reset(const Qubits& qubits, unsigned long long outcome);

    // ---- Export --------------------------------------------------------------------------------
    // Entries leave in caller order. `threshold` is a magnitude: an entry is kept when its
    // probability is strictly greater than threshold^2. In a dense export of 256 or more entries a
    // threshold of 0, below 0 or NaN copies everything. Maps never hold zeros; the caller owns and
    // deletes them.

    /// Writes 2^n amplitudes.
    void get_permuted_statevector(std::complex<T>* out, const T& threshold);
    /// Writes the 4^m = 2^n entries of a density matrix row-major, rows and columns in caller
    /// order: all n bits reversed, as `get_permuted_statevector` does.
    void get_permuted_density_matrix(std::complex<T>* out, const T& threshold);
    /// Writes the 2^(n/2) real parts of the diagonal; they are probabilities themselves.
    void get_permuted_density_diag(T* out, const T& threshold);
    std::map<unsigned long long, std::complex<T>>* get_mapped_statevector(const T& threshold);
    std::map<unsigned long long, T>* get_mapped_density_diag(const T& threshold);

    // ---- Probabilities -------------------------------------------------------------------------
    // Squared magnitudes of a pure state, real diagonal entries of a density matrix.

    /// The probability of `outcome` on `qubits`, the *first* listed qubit being the *least*
    /// significant bit of `outcome` (opposite to the distributions below); bits above the list are
    /// ignored. Without a list: all qubits of the state, or of the density matrix.
    T probability(const unsigned long long& outcome, OptionalQubits qubits = std::nullopt);
    /// Writes the 2^L probabilities of the L listed qubits, first listed qubit most significant;
    /// those not strictly greater than threshold^2 as 0.
    void get_distribution(T* out, const T& threshold, const Qubits& qubits);
    /// The entries of `get_distribution` that are not 0; the caller owns and deletes the map.
    std::map<unsigned long long, T>* get_mapped_distribution(const T& threshold,
                                                             const Qubits& qubits);

    // ---- Sampling ------------------------------------------------------------------------------
    // The state is read, not collapsed. Shot s takes draw s of `rng`. An empty list reads all
    // qubits in caller order. Running sums are kept in `T`: in single precision those of a flat
    // state stop growing at 2^24 amplitudes, so that beyond 24 qubits the last outcome is
    // over-drawn; use double there. Draws are taken in OpenMP's unnamed critical section, one per
    // process: calling these members, or `evaluate_terms`, from inside `#pragma omp critical`
    // without a name never returns.

    /// Writes `nshots` outcomes over all qubits.
    void sample(unsigned long long* out, unsigned long long nshots);
    /// Writes `nshots` outcomes over the listed qubits.
    void sample_subset(unsigned long long* out, const Qubits& qubits, unsigned long long nshots);
    /// One outcome over the listed qubits.
    unsigned long long measure(const Qubits& qubits);

    // ---- Observables ---------------------------------------------------------------------------

    /// constant + sum over terms of coefficient * <P>. A pure state contributes the real part of
    /// each <P>, a density matrix the full complex trace.
    std::complex<T> expectation_value(WObservable<T> observable);
    /// coefficient * <P> of each term; the constant is left out.
    std::vector<std::complex<T>> terms_expectations_values(WObservable<T> observable);
    /// Estimates each term from `nshots` shots in its own basis: (coefficient * mean,
    /// coefficient * standard error). The state is rotated and rotated back. Letters from an "I"
    /// on are dropped together with the one qubit at that "I".
    /// Errors: std::length_error for a term of more than 61 qubits; the state is kept.
    std::vector<std::pair<std::complex<T>, std::complex<T>>> evaluate_terms(
        std::vector<SimpleTerm<T>> terms, unsigned long long nshots);

    // ---- Loading -------------------------------------------------------------------------------

    /// Replaces the amplitudes on `qubits`, for every value of the other qubits, by the 2^m given
    /// ones times the norm that was there. Input index: lowest-numbered listed qubit is bit 0,
    /// whatever the order of the list. Nothing is normalised.
    void apply_state_preparation(std::complex<double>* amplitudes, const Qubits& qubits);
    /// Negates the amplitudes whose value on `qubits` is one of `marked`, the first listed qubit
    /// being the most significant bit. A listed number p stands for qubit n-1-p of the array.
    void apply_phase_oracle(const std::vector<unsigned long long>& marked, const Qubits& qubits);
    /// Moves the amplitude of each address a from data value 0 to the low `data_width` bits of
    /// words[a]. The last `data_width` listed qubits are the data register, those before it the
    /// address; in both the first listed qubit is the least significant bit.
    void apply_binary_qram(const unsigned long long* words, const Qubits& qubits,
                           const unsigned int& data_width);
    /// Spreads the amplitude of each address a over the data values in proportion to the real
    /// parts of the table's row a (2^data_width entries), normalised by row; registers as above.
    void apply_qram(const std::complex<double>* amplitudes, const Qubits& qubits,
                    const unsigned int& data_width);
};

extern template class PBLINALG_EXPORT PybindLinAlgStateVectorCPU<float>;
extern template class PBLINALG_EXPORT PybindLinAlgStateVectorCPU<double>;

/// True when no qubit and no control is 0, 1 or 2, so that the groups of a gate on them are runs of
/// at least eight amplitudes. `Amplitude` is std::complex<float> or std::complex<double>.
template <class Amplitude>
PBLINALG_EXPORT bool contains_no_first_qubits(const std::vector<unsigned int>& qubits,
                                              const std::vector<unsigned int>& ctrls);

extern template PBLINALG_EXPORT bool contains_no_first_qubits<std::complex<float>>(
    const std::vector<unsigned int>&, const std::vector<unsigned int>&);
extern template PBLINALG_EXPORT bool contains_no_first_qubits<std::complex<double>>(
    const std::vector<unsigned int>&, const std::vector<unsigned int>&);

}  // namespace pblinalg::cpu
