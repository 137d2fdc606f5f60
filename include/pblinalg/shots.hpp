// Programs whose course is drawn: gates with channels, measurements, resets and conditions between
// them, followed through many shots at once. Without these, run.hpp and the members of a state do.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <pblinalg/accuracy.hpp>
#include <pblinalg/export.hpp>
#include <pblinalg/gate_list.hpp>
#include <pblinalg/observable.hpp>
#include <span>
#include <string>
#include <vector>

namespace pblinalg {

namespace cpu {
struct ChannelParts;
struct ShotSteps;
}  // namespace cpu

/// Noise on a few qubits: one of several operators acts, drawn in every shot. Copies share what
/// they hold.
class PBLINALG_EXPORT Channel {
  public:
    /// 4^k entries each, row-major; the first qubit is the most significant bit of a row number.
    using Operators = std::span<const std::vector<std::complex<double>>>;

    /// Unitary operators with probabilities, which add up to 1.
    static Channel mixture(unsigned int n_qubits, Operators unitaries,
                           std::span<const double> probabilities);
    /// Kraus operators: the sum of K^dagger K over them is the identity. Operator K acts with the
    /// probability |K psi|^2, and what it leaves is divided by its norm.
    static Channel kraus(unsigned int n_qubits, Operators operators);

    unsigned int n_qubits() const;
    const cpu::ChannelParts& parts() const { return *parts_; }

  private:
    explicit Channel(std::shared_ptr<const cpu::ChannelParts> parts) : parts_(std::move(parts)) {}
    std::shared_ptr<const cpu::ChannelParts> parts_;
};

/// How often a measurement writes the wrong bit; the qubit itself collapses as it should.
struct ReadoutError {
    double one_for_zero = 0;  ///< probability that 0 is read as 1
    double zero_for_one = 0;  ///< probability that 1 is read as 0
};

/// What a classical bit must read.
struct ClassicalValue {
    unsigned int clbit;
    bool value;
};

/// Steps on `nqubits` qubits and `n_clbits` classical bits, both from 0 at first, in the order in
/// which they are added. Qubits, bits and lists are trusted to fit.
class PBLINALG_EXPORT ShotProgram {
  public:
    ShotProgram(unsigned int nqubits, unsigned int n_clbits);
    ShotProgram(ShotProgram&&) noexcept;
    ShotProgram& operator=(ShotProgram&&) noexcept;
    ~ShotProgram();

    ShotProgram& add_gates(const GateList& gates) { return add_gates(gates, 0, gates.size()); }
    /// Gates [begin, end) of a list.
    ShotProgram& add_gates(const GateList& gates, std::size_t begin, std::size_t end);
    ShotProgram& add_channel(const Channel& channel, QubitList qubits);
    ShotProgram& add_measurement(unsigned int qubit, unsigned int clbit, ReadoutError error = {});
    /// Measures a qubit and flips it when it was 1.
    ShotProgram& add_reset(unsigned int qubit);
    /// What is added until the matching `end_condition` happens where all bits read their values.
    ShotProgram& begin_condition(std::span<const ClassicalValue> bits);
    ShotProgram& end_condition();

    unsigned int nqubits() const;
    unsigned int n_clbits() const;
    const cpu::ShotSteps& steps() const { return *steps_; }

  private:
    std::unique_ptr<cpu::ShotSteps> steps_;
};

struct ShotOptions {
    std::uint64_t shots = 1024;
    std::uint64_t seed = 0;
    /// Requested workers. Registers below 2^18 amplitudes get one worker for each share of the
    /// shots, larger ones all workers for each gate.
    int threads = 1;
    /// States that a worker may hold at once, at least 1. Shots that part are followed on copies,
    /// at most log2(shots) of them; with fewer, what they share is run again.
    std::size_t max_states = 64;
    /// Of the gates.
    Accuracy accuracy = Accuracy::exact;
    /// Called once in a while, on the calling thread, with the number of shots that are through:
    /// return false to stop.
    std::function<bool(std::uint64_t)> between = {};
};

/// Follows all shots from |0...0>, those that draw alike together, and counts what the classical
/// bits read at the end: one character per bit, the first bit first.
///
/// What shot s reads follows from the seed, s and the program alone, whatever the other shots, the
/// workers and the memory. After a stop the counts are those of the shots that were through.
///
/// @param values  one per parameter of the gates.
/// Errors: std::bad_alloc; std::domain_error when gates that are not unitary have left a state
/// whose probabilities do not add up to 1 before a measurement or reset.
template <class T>
PBLINALG_EXPORT std::map<std::string, std::uint64_t> count_shots(
    const ShotProgram& program, std::span<const double> values = {},
    const ShotOptions& options = {});

/// The expectation value of an observable on the state that each shot ends in, by shot; their mean
/// estimates that of the mixed state. Errors as above.
template <class T>
PBLINALG_EXPORT std::vector<double> shot_expectations(const ShotProgram& program,
                                                      const WObservable<T>& observable,
                                                      std::span<const double> values = {},
                                                      const ShotOptions& options = {});

#define PBLINALG_DECLARE(T)                                                              \
    extern template PBLINALG_EXPORT std::map<std::string, std::uint64_t> count_shots<T>( \
        const ShotProgram&, std::span<const double>, const ShotOptions&);                \
    extern template PBLINALG_EXPORT std::vector<double> shot_expectations<T>(            \
        const ShotProgram&, const WObservable<T>&, std::span<const double>, const ShotOptions&);
PBLINALG_DECLARE(float)
PBLINALG_DECLARE(double)
#undef PBLINALG_DECLARE

}  // namespace pblinalg
