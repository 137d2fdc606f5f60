// A list of gates of any kind, without a precision: built once, run many times. What each gate is
// stands in gates.hpp; lists are run by run.hpp.
#pragma once

#include <complex>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <pblinalg/export.hpp>
#include <pblinalg/gates.hpp>
#include <span>
#include <vector>

namespace pblinalg {

/// An angle in radians: a number, or a number that a run fills in.
struct Angle {
    static constexpr std::uint32_t no_parameter = ~std::uint32_t{0};

    double offset = 0;
    double scale = 0;
    std::uint32_t parameter = no_parameter;  ///< counts from 0

    constexpr Angle() = default;
    constexpr Angle(double value) : offset(value) {}

    /// offset + scale * values[number] for the values of a run.
    static constexpr Angle of_parameter(std::uint32_t number, double scale = 1, double offset = 0) {
        Angle angle(offset);
        angle.scale = scale;
        angle.parameter = number;
        return angle;
    }

    constexpr bool is_number() const { return parameter == no_parameter; }
    constexpr double value(std::span<const double> values) const {
        return is_number() ? offset : offset + scale * values[parameter];
    }
    constexpr Angle operator-() const {
        Angle negated = *this;
        negated.offset = -offset;
        negated.scale = -scale;
        return negated;
    }
    friend constexpr bool operator==(const Angle&, const Angle&) = default;
};

/// Qubits in order, not copied: for arguments.
class QubitList {
  public:
    constexpr QubitList(const unsigned int& qubit) : qubits_(&qubit, 1) {}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winit-list-lifetime"  // lives as long as the argument
#endif
    constexpr QubitList(std::initializer_list<unsigned int> qubits)
        : qubits_(qubits.begin(), qubits.size()) {}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
    constexpr QubitList(std::span<const unsigned int> qubits) : qubits_(qubits) {}
    QubitList(const std::vector<unsigned int>& qubits) : qubits_(qubits) {}

    constexpr const unsigned int* begin() const {
        return qubits_.data();
    }
    constexpr const unsigned int* end() const {
        return begin() + qubits_.size();
    }
    constexpr std::size_t size() const {
        return qubits_.size();
    }
    constexpr unsigned int operator[](std::size_t i) const {
        return qubits_[i];
    }
    constexpr operator std::span<const unsigned int>() const {
        return qubits_;
    }

  private:
    std::span<const unsigned int> qubits_;
};

/// Qubits that must have given values for a gate to act, all 1 unless said otherwise.
struct Controls {
    std::uint64_t mask = 0;    ///< bit q is set for control q
    std::uint64_t values = 0;  ///< what the index must hold under `mask`

    constexpr Controls() = default;
    constexpr Controls(std::initializer_list<unsigned int> qubits) : Controls(QubitList(qubits)) {}
    explicit constexpr Controls(QubitList qubits) {
        for (const unsigned int qubit : qubits)
            mask |= std::uint64_t{1} << qubit;
        values = mask;
    }
    /// @param values  the first listed qubit is the most significant bit.
    constexpr Controls(QubitList qubits, std::uint64_t values) {
        for (std::size_t i = qubits.size(); i-- > 0; values >>= 1) {
            mask |= std::uint64_t{1} << qubits[i];
            this->values |= (values & 1) << qubits[i];
        }
    }
    friend constexpr bool operator==(const Controls&, const Controls&) = default;
};

/// A gate of a list, as long as the list is not changed.
struct GateView {
    GateKind kind;
    Controls controls;
    std::span<const unsigned int> targets;
    std::span<const Angle> angles;
    /// Of a `matrix`: 4^k entries, row-major; of a `diagonal`: 2^k. The first target is the most
    /// significant bit of a row number.
    std::span<const std::complex<double>> values;
    std::span<const std::uint64_t> marked;  ///< of a `phase_oracle`

    friend PBLINALG_EXPORT bool operator==(const GateView&, const GateView&);
};

/// Plans of a list for the states that it ran on.
class PlanCache;

/// Gates in the order in which they act.
///
/// Qubit q is bit q of an amplitude's index. Targets and controls of a gate are distinct, at most
/// 64 qubits, below the qubit count of the states that the list runs on; nothing is checked.
/// Several threads may read and run a list at once, none while it is changed.
class PBLINALG_EXPORT GateList {
  public:
    GateList();
    GateList(const GateList&);
    GateList(GateList&&) noexcept;
    GateList& operator=(const GateList&);
    GateList& operator=(GateList&&) noexcept;
    ~GateList();

    /// Appends a gate of the table, with as many targets and angles as its row says.
    GateList& add(GateKind kind, QubitList targets, Controls controls = {}) {
        return add(kind, targets, std::span<const Angle>(), controls);
    }
    GateList& add(GateKind kind, QubitList targets, Angle angle, Controls controls = {}) {
        return add(kind, targets, std::span<const Angle>(&angle, 1), controls);
    }
    GateList& add(GateKind kind, QubitList targets, std::span<const Angle> angles,
                  Controls controls = {});

    /// Appends any matrix on k qubits: 4^k entries, row-major, the first target being the most
    /// significant bit of a row number. A matrix whose off-diagonal entries are 0 is applied as a
    /// diagonal.
    GateList& add_matrix(QubitList targets, std::span<const std::complex<double>> matrix,
                         Controls controls = {});
    /// Appends a diagonal matrix of 2^k entries on k qubits, ordered alike.
    GateList& add_diagonal(QubitList targets, std::span<const std::complex<double>> diagonal,
                           Controls controls = {});
    /// Appends the negation of all amplitudes whose value on the targets is marked; the first
    /// target is the most significant bit of a value.
    GateList& add_phase_oracle(std::span<const std::uint64_t> marked, QubitList targets,
                               Controls controls = {});

    GateList& append(GateView gate);
    /// Appends all gates of `other`, which may be this list.
    GateList& append(const GateList& other);

    void clear();
    void reserve(std::size_t n_gates);
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    GateView operator[](std::size_t i) const;

    class Iterator {
      public:
        using value_type = GateView;
        using difference_type = std::ptrdiff_t;
        Iterator() = default;
        Iterator(const GateList& list, std::size_t i) : list_(&list), i_(i) {}
        GateView operator*() const { return (*list_)[i_]; }
        Iterator& operator++() {
            ++i_;
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            ++i_;
            return before;
        }
        friend bool operator==(const Iterator&, const Iterator&) = default;

      private:
        const GateList* list_ = nullptr;
        std::size_t i_ = 0;
    };
    Iterator begin() const { return {*this, 0}; }
    Iterator end() const { return {*this, size()}; }

    /// The list that undoes this one; matrices are taken to be unitary.
    GateList inverse() const;
    /// The list whose matrices are the complex conjugates.
    GateList conjugate() const;
    /// This list with all qubits, targets and controls, `by` higher.
    GateList shifted(unsigned int by) const;

    /// One more than the highest parameter number of an angle, 0 without parameters.
    std::uint32_t n_parameters() const { return n_parameters_; }
    /// One more than the highest qubit of a gate, 0 for an empty list.
    unsigned int n_qubits() const { return n_qubits_; }

    /// Equal gates in equal order.
    friend PBLINALG_EXPORT bool operator==(const GateList&, const GateList&);

    /// Kept by the runs of this list, dropped when it changes.
    std::shared_ptr<PlanCache> plans() const;

  private:
    struct Entry {
        GateKind kind;
        unsigned char n_targets;
        std::uint32_t first_target;
        std::uint32_t first_angle;  ///< of a gate with values: its place in `values_` or `marked_`
        std::uint32_t n_values;
        Controls controls;
    };

    /// Shared by copies, which may be taken while other threads run the list.
    struct Plans {
        Plans() = default;
        Plans(const Plans&);
        Plans(Plans&&) noexcept = default;
        Plans& operator=(Plans&&) noexcept = default;
        std::shared_ptr<PlanCache> cache;
    };

    Entry& push(GateKind kind, QubitList targets, Controls controls);

    std::vector<Entry> entries_;
    std::vector<unsigned int> targets_;
    std::vector<Angle> angles_;
    std::vector<std::complex<double>> values_;
    std::vector<std::uint64_t> marked_;
    std::uint32_t n_parameters_ = 0;
    unsigned int n_qubits_ = 0;
    mutable Plans plans_;
};

}  // namespace pblinalg
