// Random gate lists that keep the norm, and how far runs of them by rounding may be from exact
// ones.
#pragma once

#include <cmath>
#include <pblinalg/gate_list.hpp>
#include <random>

#include "support/states.hpp"

namespace pblinalg::test {

using Complex = std::complex<double>;
using Angles = std::vector<Angle>;

/// Random gates of all kinds that keep the norm.
class UnitaryDice {
  public:
    explicit UnitaryDice(std::uint64_t seed) : generator_(seed) {}
    unsigned int below(unsigned int n) { return static_cast<unsigned int>(generator_() % n); }
    double angle() { return std::uniform_real_distribution<double>(-4, 4)(generator_); }

    /// @param n_parameters  0: numbers alone.
    GateList list(unsigned int n, std::size_t n_gates, unsigned int n_parameters = 0) {
        GateList list;
        while (list.size() < n_gates) {
            const auto kind = static_cast<GateKind>(below(gate_table.size()));
            unsigned int k = info(kind).n_targets;
            if (kind == GateKind::matrix) k = 1 + below(3);
            if (kind == GateKind::diagonal || kind == GateKind::phase_oracle) k = below(4);
            // Few qubits at a time, so that neighbours meet.
            const unsigned int first = below(n);
            const unsigned int more = k + (below(2) ? 0 : below(3));
            if (more > n) continue;
            Qubits chosen;
            for (unsigned int i = 0; i < more; ++i)
                chosen.push_back((first + i * (1 + list.size() % 2 * (n % 2))) % n);
            const Qubits targets(chosen.begin(), chosen.begin() + k);
            const Controls controls(Qubits(chosen.begin() + k, chosen.end()), generator_());
            Angles angles;
            for (unsigned int a = 0; a < info(kind).n_angles; ++a) {
                angles.push_back(n_parameters != 0 && below(2)
                                     ? Angle::of_parameter(below(n_parameters), angle(), angle())
                                     : Angle(angle()));
            }
            add(list, kind, targets, angles, controls);
            // One that undoes it, or adds to it.
            if (below(4) == 0) list.append(GateList().append(list[list.size() - 1]).inverse()[0]);
            if (below(6) == 0) add(list, kind, targets, angles, controls);
        }
        return list;
    }

  private:
    void add(GateList& list, GateKind kind, const Qubits& targets, const Angles& angles,
             const Controls& controls) {
        const std::size_t rows = std::size_t{1} << targets.size();
        if (kind == GateKind::phase_oracle) {
            list.add_phase_oracle(std::vector<std::uint64_t>{below(8)}, targets, controls);
        } else if (has_values(kind)) {
            // A reflection times a phase; a diagonal of phases.
            std::vector<Complex> v(rows), values;
            for (Complex& entry : v)
                entry = std::polar(1 / std::sqrt(double(rows)), angle());
            for (std::size_t r = 0; r < rows; ++r) {
                if (kind == GateKind::diagonal) values.push_back(std::polar(1.0, angle()));
                for (std::size_t c = 0; c < rows && kind == GateKind::matrix; ++c)
                    values.push_back(Complex(0, 1) *
                                     (double(r == c) - 2.0 * v[r] * std::conj(v[c])));
            }
            if (kind == GateKind::matrix) {
                list.add_matrix(targets, values, controls);
            } else {
                list.add_diagonal(targets, values, controls);
            }
        } else {
            list.add(kind, targets, angles, controls);
        }
    }

    std::mt19937_64 generator_;
};

template <class T>
constexpr double tolerance = sizeof(T) == 8 ? 1e-12 : 2e-5;

template <class T>
Amplitudes<T> normalised(unsigned int n, std::uint64_t seed) {
    auto amplitudes = filled<T>(std::size_t{1} << n, Filling::ordinary, seed);
    double norm = 0;
    for (const auto& a : amplitudes)
        norm += std::norm(Complex(a));
    for (auto& a : amplitudes)
        a /= static_cast<T>(std::sqrt(norm));
    return amplitudes;
}

template <class T>
double largest_difference(const Amplitudes<T>& a, const Amplitudes<T>& b) {
    double largest = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const double difference = std::abs(Complex(a[i]) - Complex(b[i]));
        // NaN is a difference, too.
        if (!(difference <= largest)) largest = difference;
    }
    return largest;
}

}  // namespace pblinalg::test
