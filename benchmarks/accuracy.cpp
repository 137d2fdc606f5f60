// How far runs are from the mathematical result: random circuits of all gates, exactly and by
// rounding, against the same circuits in long double. Prints a table.
//
//     build/benchmarks/pblinalg_accuracy [circuits [gates]]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <pblinalg/run.hpp>
#include <random>

namespace pblinalg::benchmarks {
namespace {

using Real = long double;
using Complex = std::complex<Real>;
using Matrix = std::vector<Complex>;  ///< row-major, the first listed target most significant

constexpr Complex i{0, 1};

/// cos(theta/2) - i sin(theta/2) P for a Pauli string P.
Matrix rotation(Real theta, const Matrix& pauli) {
    const std::size_t rows = pauli.size() == 4 ? 2 : 4;
    Matrix m(pauli.size());
    for (std::size_t e = 0; e < m.size(); ++e)
        m[e] = (e % (rows + 1) == 0 ? std::cos(theta / 2) : 0) - i * std::sin(theta / 2) * pauli[e];
    return m;
}

Matrix kronecker(const Matrix& a, const Matrix& b) {
    Matrix m(16);
    for (std::size_t r = 0; r < 4; ++r) {
        for (std::size_t c = 0; c < 4; ++c)
            m[4 * r + c] = a[r / 2 * 2 + c / 2] * b[r % 2 * 2 + c % 2];
    }
    return m;
}

/// The identity on |00> and |11>, and [[a, b], [b, a]] between.
Matrix between(Complex a, Complex b) {
    return {1, 0, 0, 0, 0, a, b, 0, 0, b, a, 0, 0, 0, 0, 1};
}

Matrix matrix_of(const GateView& gate) {
    const Matrix x = {0, 1, 1, 0}, y = {0, -i, i, 0}, z = {1, 0, 0, -1};
    const Real s = 1 / std::numbers::sqrt2_v<Real>;
    const auto diagonal = [](Complex a, Complex b) { return Matrix{a, 0, 0, b}; };
    Real angles[3] = {};
    for (std::size_t a = 0; a < gate.angles.size(); ++a)
        angles[a] = gate.angles[a].offset;
    const Real theta = angles[0];
    const Complex stay = Complex(1, 1) / Real(2), cross = Complex(1, -1) / Real(2);
    // clang-format off
    switch (gate.kind) {
        case GateKind::H: return {s, s, s, -s};
        case GateKind::X: return x;
        case GateKind::Y: return y;
        case GateKind::Z: return z;
        case GateKind::S: return diagonal(1, i);
        case GateKind::Sdg: return diagonal(1, -i);
        case GateKind::T: return diagonal(1, std::polar(Real(1), std::numbers::pi_v<Real> / 4));
        case GateKind::Tdg: return diagonal(1, std::polar(Real(1), -std::numbers::pi_v<Real> / 4));
        case GateKind::SX: return {stay, cross, cross, stay};
        case GateKind::SXdg: return {cross, stay, stay, cross};
        case GateKind::PH: return diagonal(1, std::polar(Real(1), theta));
        case GateKind::GPHASE: return {std::polar(Real(1), theta)};
        case GateKind::RX: return rotation(theta, x);
        case GateKind::RY: return rotation(theta, y);
        case GateKind::RZ: return rotation(theta, z);
        case GateKind::U: {
            const Real co = std::cos(theta / 2), si = std::sin(theta / 2);
            return {co, -std::polar(Real(1), angles[2]) * si, std::polar(Real(1), angles[1]) * si,
                    std::polar(Real(1), angles[1] + angles[2]) * co};
        }
        case GateKind::YtoZ: return {s, -i * s, s, i * s};
        case GateKind::ZtoY: return {s, s, i * s, -i * s};
        case GateKind::SWAP: return between(0, 1);
        case GateKind::ISWAP: return between(0, i);
        case GateKind::ISWAPdg: return between(0, -i);
        case GateKind::SQRTSWAP: return between(stay, cross);
        case GateKind::SQRTSWAPdg: return between(cross, stay);
        case GateKind::RXX: return rotation(theta, kronecker(x, x));
        case GateKind::RYY: return rotation(theta, kronecker(y, y));
        case GateKind::RZZ: return rotation(theta, kronecker(z, z));
        case GateKind::RZX: return rotation(theta, kronecker(z, x));
        case GateKind::matrix: return {gate.values.begin(), gate.values.end()};
        default: break;
    }
    // clang-format on
    const std::size_t rows = std::size_t{1} << gate.targets.size();
    Matrix m(rows * rows);
    for (std::size_t r = 0; r < rows; ++r) {
        const bool marked = std::ranges::count(gate.marked, r) > 0;
        m[r * rows + r] =
            gate.kind == GateKind::diagonal ? Complex(gate.values[r]) : Complex(marked ? -1 : 1);
    }
    return m;
}

void apply(const GateView& gate, std::vector<Complex>& state) {
    const Matrix m = matrix_of(gate);
    const std::size_t k = gate.targets.size(), rows = std::size_t{1} << k;
    std::vector<std::size_t> at(rows);
    for (std::size_t r = 0; r < rows; ++r) {
        for (std::size_t t = 0; t < k; ++t)
            at[r] |= (r >> (k - 1 - t) & 1) << gate.targets[t];
    }
    std::vector<Complex> old(rows);
    for (std::size_t base = 0; base < state.size(); ++base) {
        const bool on = ((base ^ gate.controls.values) & gate.controls.mask) == 0;
        if (!on || (base & at[rows - 1])) continue;
        for (std::size_t r = 0; r < rows; ++r)
            old[r] = state[base | at[r]];
        for (std::size_t r = 0; r < rows; ++r) {
            Complex sum = 0;
            for (std::size_t c = 0; c < rows; ++c)
                sum += m[r * rows + c] * old[c];
            state[base | at[r]] = sum;
        }
    }
}

/// Gates of all kinds, each as often; every third one has a control.
class RandomCircuit {
  public:
    RandomCircuit(unsigned int n, std::size_t n_gates, std::uint64_t seed) : generator_(seed) {
        std::vector<unsigned int> qubits(n);
        for (unsigned int q = 0; q < n; ++q)
            qubits[q] = q;
        for (std::size_t g = 0; g < n_gates; ++g) {
            const auto kind = static_cast<GateKind>(generator_() % gate_table.size());
            const bool counted =
                kind == GateKind::matrix || has_values(kind) || kind == GateKind::phase_oracle;
            const unsigned int k = counted ? 1 + generator_() % 2 : info(kind).n_targets;
            std::shuffle(qubits.begin(), qubits.end(), generator_);
            const std::span<const unsigned int> targets(qubits.data(), k);
            const Controls controls(
                QubitList(std::span<const unsigned int>(qubits.data() + k, g % 3 == 0)),
                generator_());
            const std::size_t rows = std::size_t{1} << k;
            if (kind == GateKind::phase_oracle) {
                list.add_phase_oracle(std::vector<std::uint64_t>{generator_() % rows}, targets,
                                      controls);
            } else if (kind == GateKind::diagonal) {
                std::vector<std::complex<double>> values(rows);
                for (auto& value : values)
                    value = std::polar(1.0, angle());
                list.add_diagonal(targets, values, controls);
            } else if (kind == GateKind::matrix) {
                list.add_matrix(targets, reflection(rows), controls);
            } else {
                std::vector<Angle> angles(info(kind).n_angles);
                for (Angle& own : angles)
                    own = angle();
                list.add(kind, targets, angles, controls);
            }
        }
    }

    GateList list;

  private:
    double angle() { return std::uniform_real_distribution<double>(-3.2, 3.2)(generator_); }

    /// A unitary matrix without zeros, but for the rounding of its entries.
    std::vector<std::complex<double>> reflection(std::size_t rows) {
        std::vector<Complex> v(rows);
        for (Complex& entry : v)
            entry = std::polar(1 / std::sqrt(Real(rows)), Real(angle()));
        std::vector<std::complex<double>> m(rows * rows);
        for (std::size_t r = 0; r < rows; ++r) {
            for (std::size_t c = 0; c < rows; ++c)
                m[r * rows + c] =
                    std::complex<double>(Real(r == c) - Real(2) * v[r] * std::conj(v[c]));
        }
        return m;
    }

    std::mt19937_64 generator_;
};

struct Errors {
    std::vector<Real> largest;  ///< of each circuit's amplitudes
    void add(const auto* state, const std::vector<Complex>& expected) {
        Real most = 0;
        for (std::size_t a = 0; a < expected.size(); ++a)
            most = std::max(most, std::abs(Complex(state[a]) - expected[a]));
        largest.push_back(most);
    }
};

template <class T>
void measure(const GateList& list, unsigned int n, const std::vector<Complex>& expected,
             Errors (&errors)[3]) {
    cpu::PybindLinAlgStateVectorCPU<T> exact(n), rounded(n);
    exact.reset();
    rounded.reset();
    run(exact, list);
    run(rounded, list, {}, {.accuracy = Accuracy::rounding});
    errors[0].add(exact.state.get(), expected);
    errors[1].add(rounded.state.get(), expected);
    std::vector<Complex> other(expected.size());
    std::copy_n(exact.state.get(), expected.size(), other.begin());
    errors[2].add(rounded.state.get(), other);
}

void print(const char* precision, Errors (&errors)[3]) {
    static constexpr const char* what[] = {"exact", "rounding", "exact against rounding"};
    for (int e = 0; e < 3; ++e) {
        auto& all = errors[e].largest;
        std::ranges::sort(all);
        std::printf("| %s | %s | %.2Lg | %.2Lg |\n", precision, what[e], all[all.size() / 2],
                    all.back());
    }
}

int main_of(std::size_t n_circuits, std::size_t n_gates) {
    constexpr unsigned int n = 10;
    Errors in_double[3], in_float[3];
    for (std::size_t c = 0; c < n_circuits; ++c) {
        const GateList list = RandomCircuit(n, n_gates, c).list;
        std::vector<Complex> expected(std::size_t{1} << n);
        expected[0] = 1;
        for (const GateView gate : list)
            apply(gate, expected);
        measure<double>(list, n, expected, in_double);
        measure<float>(list, n, expected, in_float);
    }
    std::printf("%zu circuits of %zu gates on %u qubits; largest error of an amplitude\n\n",
                n_circuits, n_gates, n);
    std::printf("| Precision | Accuracy | Median circuit | Worst circuit |\n|---|---|---|---|\n");
    print("double", in_double);
    print("float", in_float);
    return 0;
}

}  // namespace
}  // namespace pblinalg::benchmarks

int main(int n_arguments, char** arguments) {
    const auto number = [&](int place, std::size_t otherwise) -> std::size_t {
        return n_arguments > place ? std::strtoul(arguments[place], nullptr, 10) : otherwise;
    };
    return pblinalg::benchmarks::main_of(number(1, 200), number(2, 1000));
}
