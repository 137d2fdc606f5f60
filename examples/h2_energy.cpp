// The ground-state energy of the hydrogen molecule by a variational circuit of one parameter,
// exactly and from shots, compared with the lowest eigenvalue of the Hamiltonian.
//
// Hamiltonian: P. J. J. O'Malley et al., "Scalable Quantum Simulation of Molecular Energies",
// Phys. Rev. X 6, 031007 (2016), Table I, bond length 0.75 angstrom; energies in hartree.
#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <iomanip>
#include <iostream>
#include <numbers>
#include <pblinalg/pblinalg.hpp>
#include <string>
#include <vector>

#include "support/command_line.hpp"
#include "support/pauli_strings.hpp"

namespace {

using State = pblinalg::cpu::PybindLinAlgStateVectorCPU<double>;
using Matrix = std::array<std::array<double, 4>, 4>;

struct Term {
    std::string letters;  ///< letter q acts on qubit q
    double coefficient;
};

constexpr double identity_coefficient = 0.2252;
const std::vector<Term> hamiltonian = {
    {"ZI", 0.3435}, {"IZ", -0.4347}, {"ZZ", 0.5716}, {"XX", 0.0910}, {"YY", 0.0910}};

/// Entry (row, column) of a Pauli matrix.
std::complex<double> pauli_entry(char letter, unsigned int row, unsigned int column) {
    const std::complex<double> i(0, 1);
    if (letter == 'X') return row != column ? 1 : 0;
    if (letter == 'Y') return row == column ? 0 : row == 0 ? -i : i;
    if (row != column) return 0;
    return letter == 'Z' && row == 1 ? -1 : 1;
}

/// The Hamiltonian written out; it is real, and qubit q is bit q of a row number.
Matrix full_matrix() {
    Matrix matrix{};
    for (unsigned int row = 0; row < 4; ++row) {
        matrix[row][row] = identity_coefficient;
        for (unsigned int column = 0; column < 4; ++column) {
            for (const Term& term : hamiltonian) {
                const auto entry = pauli_entry(term.letters[0], row & 1, column & 1) *
                                   pauli_entry(term.letters[1], row >> 1, column >> 1);
                matrix[row][column] += term.coefficient * entry.real();
            }
        }
    }
    return matrix;
}

/// The lowest eigenvalue of a real symmetric matrix, by Jacobi's rotations.
double lowest_eigenvalue(Matrix a) {
    for (int sweep = 0; sweep < 20; ++sweep) {
        for (unsigned int p = 0; p < 4; ++p) {
            for (unsigned int q = p + 1; q < 4; ++q) {
                // The rotation in the plane (p, q) that clears a[p][q].
                const double angle = 0.5 * std::atan2(2 * a[p][q], a[q][q] - a[p][p]);
                const double c = std::cos(angle);
                const double s = std::sin(angle);
                for (unsigned int k = 0; k < 4; ++k) {
                    const double akp = a[k][p];
                    a[k][p] = c * akp - s * a[k][q];
                    a[k][q] = s * akp + c * a[k][q];
                }
                for (unsigned int k = 0; k < 4; ++k) {
                    const double apk = a[p][k];
                    a[p][k] = c * apk - s * a[q][k];
                    a[q][k] = s * apk + c * a[q][k];
                }
            }
        }
    }
    return std::min({a[0][0], a[1][1], a[2][2], a[3][3]});
}

/// Prepares exp(-i theta X0 Y1) on the Hartree-Fock state, in which qubit 0 is set.
void prepare(State& state, double theta) {
    state.reset();
    state.apply_X(0);
    state.apply_H(0);
    state.apply_YtoZ(1);
    state.apply_CNOT(0, 1);
    state.apply_RZ(1, 2 * theta);
    state.apply_CNOT(0, 1);
    state.apply_ZtoY(1);
    state.apply_H(0);
}

double exact_energy(State& state, double theta) {
    pblinalg::WObservable<double> observable{};
    observable.constant = identity_coefficient;
    for (const Term& term : hamiltonian)
        examples::add_pauli_string(observable, term.letters, term.coefficient);
    prepare(state, theta);
    return state.expectation_value(observable).real();
}

struct Estimate {
    double energy;
    double error;
};

Estimate sampled_energy(State& state, double theta, unsigned long long nshots) {
    std::vector<pblinalg::SimpleTerm<double>> terms;
    for (const Term& term : hamiltonian) {
        // An "I" would end a term early; only the qubits with a letter are listed.
        pblinalg::SimpleTerm<double> listed{{}, "", term.coefficient};
        for (unsigned int q = 0; q < term.letters.size(); ++q) {
            if (term.letters[q] == 'I') continue;
            listed.qubits.push_back(q);
            listed.paulis += term.letters[q];
        }
        terms.push_back(listed);
    }
    prepare(state, theta);
    Estimate total{identity_coefficient, 0};
    for (const auto& [mean, error] : state.evaluate_terms(terms, nshots)) {
        total.energy += mean.real();
        total.error = std::hypot(total.error, error.real());
    }
    return total;
}

/// The energy is a + b cos(2 theta) + c sin(2 theta): three values fix it, and its minimum.
double best_angle(State& state) {
    const double quarter = std::numbers::pi / 4;
    const double plus = exact_energy(state, quarter);
    const double minus = exact_energy(state, -quarter);
    const double a = (plus + minus) / 2;
    const double b = exact_energy(state, 0) - a;
    const double c = (plus - minus) / 2;
    return 0.5 * std::atan2(-c, -b);
}

int run(const std::vector<std::string>& arguments) {
    unsigned long long nshots = 100000;
    unsigned long long seed = 1;
    examples::CommandLine options(
        "h2_energy", "Finds the ground-state energy of H2 with a variational circuit.");
    options.add_integer("--shots", "shots per term", nshots, 2ull, 100'000'000ull);
    options.add_integer("--seed", "seed of the random generator", seed, 0ull, ~0ull);
    if (!options.read(arguments)) return examples::exit_success;

    State state(2);
    state.rng.seed(seed);
    const double reference = lowest_eigenvalue(full_matrix());
    const double theta = best_angle(state);
    const double exact = exact_energy(state, theta);
    const Estimate sampled = sampled_energy(state, theta, nshots);
    std::cout << std::fixed << std::setprecision(8)  //
              << "Hartree-Fock energy   " << exact_energy(state, 0) << " hartree\n"
              << "Variational energy    " << exact << " hartree at theta = " << theta << '\n'
              << "Lowest eigenvalue     " << reference << " hartree\n"
              << "From " << nshots << " shots a term " << sampled.energy << " +- " << sampled.error
              << " hartree\n";
    const bool agrees = std::abs(exact - reference) < 1e-12 &&
                        std::abs(sampled.energy - reference) < 5 * sampled.error;
    std::cout << (agrees ? "Agrees" : "Does NOT agree") << " with the eigenvalue.\n";
    return agrees ? examples::exit_success : examples::exit_check_failed;
}

}  // namespace

int main(int argc, char** argv) {
    return examples::run_program("h2_energy", argc, argv, run);
}
