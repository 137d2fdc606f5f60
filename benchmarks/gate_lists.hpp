// The gate lists that benchmarks run: brickwork and others, of any number of qubits and layers.
#pragma once

#include <cmath>
#include <complex>
#include <numbers>
#include <pblinalg/gate_list.hpp>
#include <random>
#include <utility>
#include <vector>

namespace pblinalg::benchmarks {

/// Random angles and qubits, the same in every run.
class Source {
  public:
    double angle() { return std::uniform_real_distribution<double>(0, 6.28)(generator_); }
    unsigned int below(unsigned int n) { return static_cast<unsigned int>(generator_() % n); }
    double normal() { return std::normal_distribution<double>()(generator_); }
    /// Two different ones.
    std::pair<unsigned int, unsigned int> qubits(unsigned int n) {
        const unsigned int a = below(n);
        return {a, (a + 1 + below(n - 1)) % n};
    }

  private:
    std::mt19937_64 generator_{1};
};

using AddLayers = void (*)(GateList& list, unsigned int n, unsigned int layers, Source& source);

inline void add_u3_cx(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::U, q,
                     std::vector<Angle>{source.angle(), source.angle(), source.angle()});
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::X, q + 1, Controls({q}));
    }
}

inline void add_brickwork(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    static constexpr GateKind axes[] = {GateKind::RX, GateKind::RY, GateKind::RZ};
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(axes[(layer + q) % 3], q, source.angle());
        for (unsigned int q = layer % 2; q + 1 < n; q += 2)
            list.add(GateKind::X, q + 1, Controls({q}));
    }
}

inline void add_qft(GateList& list, unsigned int n, unsigned int, Source&) {
    for (unsigned int target = 0; target < n; ++target) {
        list.add(GateKind::H, target);
        for (unsigned int control = target + 1; control < n; ++control)
            list.add(GateKind::PH, target,
                     std::ldexp(std::numbers::pi, -static_cast<int>(control - target)),
                     Controls({control}));
    }
    for (unsigned int q = 0; q < n / 2; ++q)
        list.add(GateKind::SWAP, {q, n - 1 - q});
}

inline void add_ising(GateList& list, unsigned int n, unsigned int steps, Source&) {
    for (unsigned int step = 0; step < steps; ++step) {
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::RZZ, {q, q + 1}, 0.2);
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::RX, q, 0.3);
    }
}

/// RXX and RZZ on random pairs.
inline void add_pair_rotations(GateList& list, unsigned int n, unsigned int layers,
                               Source& source) {
    for (unsigned int i = 0; i < layers * n / 2; ++i) {
        const auto [a, b] = source.qubits(n);
        list.add(i % 2 ? GateKind::RZZ : GateKind::RXX, {a, b}, source.angle());
    }
}

/// The hardware-efficient ansatz.
inline void add_ansatz(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::RY, q, source.angle()).add(GateKind::RZ, q, source.angle());
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::Z, q + 1, Controls({q}));
    }
}

inline void add_toffoli_h(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::H, q);
        for (unsigned int i = 0; i < n; ++i) {
            const auto [a, b] = source.qubits(n);
            unsigned int target = source.below(n);
            while (target == a || target == b)
                target = source.below(n);
            list.add(GateKind::X, target, Controls({a, b}));
        }
    }
}

/// A random unitary 4x4 matrix: Gram and Schmidt on normal entries.
inline std::vector<std::complex<double>> random_unitary(Source& source) {
    std::vector<std::complex<double>> m(16);
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c)
            m[4 * r + c] = {source.normal(), source.normal()};
        for (int s = 0; s <= r; ++s) {
            std::complex<double> overlap = 0;
            for (int c = 0; c < 4; ++c)
                overlap += m[4 * r + c] * std::conj(m[4 * s + c]);
            for (int c = 0; c < 4; ++c)
                m[4 * r + c] = s < r ? m[4 * r + c] - overlap * m[4 * s + c]
                                     : m[4 * r + c] / std::sqrt(overlap.real());
        }
    }
    return m;
}

inline void add_quantum_volume(GateList& list, unsigned int n, unsigned int layers,
                               Source& source) {
    std::vector<unsigned int> order(n);
    for (unsigned int q = 0; q < n; ++q)
        order[q] = q;
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = n - 1; q > 0; --q)
            std::swap(order[q], order[source.below(q + 1)]);
        for (unsigned int q = 0; q + 1 < n; q += 2)
            list.add_matrix({order[q], order[q + 1]}, random_unitary(source));
    }
}

}  // namespace pblinalg::benchmarks
