// A list of gates without a precision: the compiled form of a circuit. It records the calls of the
// library's gate members and replays them on a state vector in pieces.
#pragma once

#include <complex>
#include <functional>
#include <memory>
#include <optional>
#include <pblinalg/pblinalg.hpp>
#include <string>
#include <vector>

#include "bound_state.hpp"

namespace pblinalg::python {

// clang-format off
enum class GateKind : unsigned char {
    H, X, Y, Z, S, T, PH, RX, RY, RZ, YtoZ, ZtoY,
    CNOT, CCNOT, CSIGN, SWAP, SQRTSWAP, ISWAP,
    matrix, phase_oracle,
};
// clang-format on

/// The library's name of a gate; "matrix" and "phase_oracle" for the two kinds without one.
const char* name_of(GateKind kind);

/// A stretch of gates that is applied without looking up: a circuit record where the library's own
/// circuit driver knows every gate, a single other gate else.
template <class T>
struct Piece {
    std::size_t first;
    std::size_t count;
    std::unique_ptr<PybindLinAlgWCircuit<T>> record;
};

class GateSequence : public Shared {
  public:
    using Real = double;
    using Qubits = std::vector<unsigned int>;
    using OptionalQubits = std::optional<Qubits>;
    using Matrix = std::vector<std::complex<double>>;

    explicit GateSequence(unsigned int nqubits) : nqubits(nqubits) {}
    GateSequence(const GateSequence&) = delete;
    GateSequence& operator=(const GateSequence&) = delete;

    unsigned int nqubits;
    /// Calls in progress that only read; see `Reading`.
    unsigned int readers = 0;

    struct Gate {
        GateKind kind;
        /// Positions in the pools below; controls follow the targets.
        unsigned int targets;
        unsigned int controls;
        std::size_t first_qubit;
        std::size_t first_value;
        std::size_t values;
    };

    std::size_t size() const { return gates_.size(); }
    const Gate& operator[](std::size_t i) const { return gates_[i]; }
    Qubits targets(const Gate& gate) const;
    Qubits controls(const Gate& gate) const;
    double angle(const Gate& gate) const { return values_[gate.first_value].real(); }
    Matrix matrix(const Gate& gate) const;
    std::vector<unsigned long long> marked(const Gate& gate) const;
    bool has_angle(const Gate& gate) const;

    /// Appends the gates of `other`, which may be this sequence itself.
    void extend(const GateSequence& other);

    /// Replays gates on `state` between calls of `between(gates done)`, which may throw to stop;
    /// the state then holds the effect of exactly the gates before.
    template <class T>
    void apply(BoundState<T>& state, const std::function<void(std::size_t)>& between);

    unsigned int qubit_limit() const { return nqubits; }
    void require_amplitudes() const {}
    template <class Work>
    decltype(auto) run(const Work& work) const {
        return work();
    }

    // The gate members of the state vector; each appends itself.
    void apply_H(unsigned int q, OptionalQubits c) { add(GateKind::H, {q}, c); }
    void apply_X(unsigned int q, OptionalQubits c) { add(GateKind::X, {q}, c); }
    void apply_Y(unsigned int q, OptionalQubits c) { add(GateKind::Y, {q}, c); }
    void apply_Z(unsigned int q, OptionalQubits c) { add(GateKind::Z, {q}, c); }
    void apply_S(unsigned int q, OptionalQubits c) { add(GateKind::S, {q}, c); }
    void apply_T(unsigned int q, OptionalQubits c) { add(GateKind::T, {q}, c); }
    void apply_PH(unsigned int q, double theta, OptionalQubits c) {
        add(GateKind::PH, {q}, c, theta);
    }
    void apply_RX(unsigned int q, double theta, OptionalQubits c) {
        add(GateKind::RX, {q}, c, theta);
    }
    void apply_RY(unsigned int q, double theta, OptionalQubits c) {
        add(GateKind::RY, {q}, c, theta);
    }
    void apply_RZ(unsigned int q, double theta, OptionalQubits c) {
        add(GateKind::RZ, {q}, c, theta);
    }
    void apply_YtoZ(unsigned int q, OptionalQubits c) { add(GateKind::YtoZ, {q}, c); }
    void apply_ZtoY(unsigned int q, OptionalQubits c) { add(GateKind::ZtoY, {q}, c); }
    void apply_CNOT(unsigned int c, unsigned int t) { add(GateKind::CNOT, {c, t}, {}); }
    void apply_CCNOT(unsigned int c1, unsigned int c2, unsigned int t) {
        add(GateKind::CCNOT, {c1, c2, t}, {});
    }
    void apply_CSIGN(unsigned int a, unsigned int b) { add(GateKind::CSIGN, {a, b}, {}); }
    void apply_SWAP(unsigned int a, unsigned int b) { add(GateKind::SWAP, {a, b}, {}); }
    void apply_SQRTSWAP(unsigned int a, unsigned int b) { add(GateKind::SQRTSWAP, {a, b}, {}); }
    void apply_ISWAP(unsigned int a, unsigned int b) { add(GateKind::ISWAP, {a, b}, {}); }
    void apply_1qbit_gate(unsigned int q, const Matrix& m) { add(GateKind::matrix, {q}, {}, m); }
    void apply_2qbit_gate(unsigned int a, unsigned int b, const Matrix& m) {
        add(GateKind::matrix, {a, b}, {}, m);
    }
    void apply_nqbit_gate(const Qubits& q, const Matrix& m) { add(GateKind::matrix, q, {}, m); }
    void apply_1qbit_ctrl_gate(const Qubits& c, unsigned int q, const Matrix& m) {
        add(GateKind::matrix, {q}, c, m);
    }
    void apply_2qbit_ctrl_gate(const Qubits& c, unsigned int a, unsigned int b, const Matrix& m) {
        add(GateKind::matrix, {a, b}, c, m);
    }
    void apply_nqbit_ctrl_gate(const Qubits& c, const Qubits& q, const Matrix& m) {
        add(GateKind::matrix, q, c, m);
    }
    void apply_phase_oracle(const std::vector<unsigned long long>& marked, const Qubits& qubits);

  private:
    template <class T>
    using Pieces = std::vector<Piece<T>>;

    void add(GateKind kind, const Qubits& targets, const OptionalQubits& controls);
    void add(GateKind kind, const Qubits& targets, const OptionalQubits& controls, double theta);
    void add(GateKind kind, const Qubits& targets, const OptionalQubits& controls,
             const Matrix& matrix);
    template <class T>
    const Pieces<T>& pieces();
    /// Runs pieces from `next` on until the time for a look at pending signals has come.
    template <class T>
    void run_pieces(BoundState<T>& state, const Pieces<T>& pieces, std::size_t& next);
    template <class T>
    void apply_one(BoundState<T>& state, const Gate& gate) const;

    std::vector<Gate> gates_;
    std::vector<unsigned int> qubits_;
    std::vector<std::complex<double>> values_;
    std::vector<unsigned long long> marked_;
    /// Built at the first run in a precision, dropped when a gate is appended.
    Pieces<float> float_pieces_;
    Pieces<double> double_pieces_;
};

/// Claims a sequence for calls that only read it, any number of which go together.
class Reading {
  public:
    explicit Reading(GateSequence& sequence) : sequence_(sequence) {
        if (sequence.readers == 0) {
            const Use unclaimed(sequence);
        }
        sequence.busy = true;
        ++sequence.readers;
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
    ~Reading() {
        if (--sequence_.readers == 0) sequence_.busy = false;
    }

  private:
    GateSequence& sequence_;
};

}  // namespace pblinalg::python
