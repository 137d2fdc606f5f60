// Random gate lists: all kinds of gates, with controls of both values and CNOTs that come back.
#pragma once

#include <algorithm>
#include <limits>
#include <pblinalg/gate_list.hpp>
#include <random>

#include "support/states.hpp"

namespace pblinalg::test {

/// Random gates of all kinds on n qubits.
class Dice {
  public:
    explicit Dice(std::uint64_t seed) : generator_(seed) {}
    unsigned int below(unsigned int n) { return static_cast<unsigned int>(generator_() % n); }

    Qubits qubits(unsigned int n, unsigned int count) {
        Qubits all(n);
        for (unsigned int q = 0; q < n; ++q)
            all[q] = q;
        std::shuffle(all.begin(), all.end(), generator_);
        all.resize(count);
        return all;
    }

    /// @return false, with nothing added, when the gate does not fit.
    bool add(GateList& list, GateKind kind, unsigned int n) {
        static constexpr double angles[] = {0, 0.3, -1.7, 3.141592653589793, 1e-4, 2.5};
        unsigned int k = info(kind).n_targets;
        if (kind == GateKind::matrix) k = 1 + below(2);
        if (kind == GateKind::diagonal) k = below(std::min(n, 8u) + 1);
        if (kind == GateKind::phase_oracle) k = below(n + 1);
        if (k > n) return false;
        const unsigned int most = std::min(n - k, below(3) == 0 ? 5u : 1u);
        const Qubits chosen = qubits(n, k + (below(2) ? 0 : below(most + 1)));
        const Qubits targets(chosen.begin(), chosen.begin() + k);
        const Qubits controls(chosen.begin() + k, chosen.end());
        const Controls condition(controls, below(3) == 0 ? generator_() : ~std::uint64_t{0});
        if (kind == GateKind::phase_oracle) {
            std::vector<std::uint64_t> marked;
            for (unsigned int m = below(8) == 0 ? 100 : below(4); m > 0; --m)
                marked.push_back(generator_() % (std::uint64_t{1} << k));
            list.add_phase_oracle(marked, targets, condition);
        } else if (has_values(kind)) {
            auto values =
                filled<double>(std::size_t{1} << (kind == GateKind::matrix ? 2 * k : k),
                               below(4) ? Filling::ordinary : Filling::signed_zeros, generator_());
            if (kind == GateKind::matrix) {
                list.add_matrix(targets, values, condition);
            } else {
                list.add_diagonal(targets, values, condition);
            }
        } else {
            std::vector<Angle> own;
            for (unsigned int a = 0; a < info(kind).n_angles; ++a)
                own.emplace_back(below(500) == 0 ? std::numeric_limits<double>::infinity()
                                                 : angles[below(6)]);
            list.add(kind, targets, own, condition);
        }
        return true;
    }

    GateList list(unsigned int n, int n_gates) {
        GateList gates;
        const bool moves = below(3) == 0;
        while (static_cast<int>(gates.size()) < n_gates) {
            // Some lists mostly move amplitudes, and most CNOTs come back after diagonals.
            const auto kind = moves && below(3) ? (below(3) ? GateKind::X : GateKind::SWAP)
                                                : static_cast<GateKind>(below(gate_table.size()));
            if (!add(gates, kind, n) || kind != GateKind::X || below(2)) continue;
            const std::size_t opening = gates.size() - 1;
            for (unsigned int d = below(3); d > 0; --d)
                add(gates, below(2) ? GateKind::RZ : GateKind::T, n);
            // Or, as a trap, one for the opposite control.
            GateView closing = gates[opening];
            if (below(4) == 0) closing.controls.values ^= closing.controls.mask;
            gates.append(closing);
        }
        return gates;
    }

  private:
    std::mt19937_64 generator_;
};

}  // namespace pblinalg::test
