// A Bell pair that loses its coherence: a density matrix loaded row by row and read through its
// diagonal, its distributions and Pauli expectation values, each compared with theory.
#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <iomanip>
#include <iostream>
#include <pblinalg/pblinalg.hpp>
#include <string>
#include <vector>

#include "support/command_line.hpp"
#include "support/pauli_strings.hpp"

namespace {

using State = pblinalg::cpu::PybindLinAlgStateVectorCPU<double>;

/// The two-qubit matrix, row-major, of (|00> + |11>) / sqrt(2) after a phase flip of probability
/// `flip` on one qubit: the flip leaves the diagonal alone and takes away coherence.
std::array<std::complex<double>, 16> dephased_bell(double flip) {
    std::array<std::complex<double>, 16> rho{};
    rho[0 * 4 + 0] = rho[3 * 4 + 3] = 0.5;
    rho[0 * 4 + 3] = rho[3 * 4 + 0] = 0.5 * (1 - 2 * flip);
    return rho;
}

struct Readings {
    std::array<double, 4> diagonal;     ///< probabilities of 00, 01, 10, 11
    std::array<double, 2> first_qubit;  ///< probabilities of 0 and 1 on qubit 0 alone
    double both_one;                    ///< probability of 11
    double xx, yy, zz;                  ///< mean correlations

    /// The overlap with the ideal Bell state.
    double fidelity() const { return (1 + xx - yy + zz) / 4; }
};

Readings read(double flip) {
    const auto rho = dephased_bell(flip);
    // A density matrix of m qubits takes 2m qubits of a state vector.
    State state(4);
    state.density_matrix = true;
    state.reset(reinterpret_cast<unsigned long long>(rho.data()));

    Readings readings{};
    state.get_permuted_density_diag(readings.diagonal.data(), 0);
    state.get_distribution(readings.first_qubit.data(), 0, {0});
    readings.both_one = state.probability(3, std::vector<unsigned int>{0, 1});
    pblinalg::WObservable<double> correlations{};
    for (const char* letters : {"XX", "YY", "ZZ"})
        examples::add_pauli_string(correlations, letters, 1);
    const auto values = state.terms_expectations_values(correlations);
    readings.xx = values[0].real();
    readings.yy = values[1].real();
    readings.zz = values[2].real();
    return readings;
}

/// The largest difference between the readings and theory.
double deviation(const Readings& readings, double flip) {
    const double coherence = 1 - 2 * flip;
    const double differences[] = {readings.diagonal[0] - 0.5,
                                  readings.diagonal[1],
                                  readings.diagonal[2],
                                  readings.diagonal[3] - 0.5,
                                  readings.first_qubit[0] - 0.5,
                                  readings.first_qubit[1] - 0.5,
                                  readings.both_one - 0.5,
                                  readings.xx - coherence,
                                  readings.yy + coherence,
                                  readings.zz - 1,
                                  readings.fidelity() - (1 - flip)};
    double largest = 0;
    for (const double difference : differences)
        largest = std::max(largest, std::abs(difference));
    return largest;
}

int run(const std::vector<std::string>& arguments) {
    unsigned int steps = 5;
    examples::CommandLine options("noisy_bell",
                                  "Reads a Bell pair under growing dephasing from its matrix.");
    options.add_integer("--steps", "strengths of dephasing beside none", steps, 1u, 1000u);
    if (!options.read(arguments)) return examples::exit_success;

    std::cout << "phase flip    P(00)    P(11)     <XX>     <YY>     <ZZ>  fidelity\n"
              << std::fixed << std::setprecision(4);
    double largest = 0;
    for (unsigned int step = 0; step <= steps; ++step) {
        const double flip = 0.5 * step / steps;
        const Readings readings = read(flip);
        largest = std::max(largest, deviation(readings, flip));
        std::cout << std::setw(10) << flip;
        for (const double value : {readings.diagonal[0], readings.both_one, readings.xx,
                                   readings.yy, readings.zz, readings.fidelity()})
            std::cout << std::setw(9) << value;
        std::cout << '\n';
    }
    const bool agrees = largest < 1e-12;
    std::cout << (agrees ? "Agrees" : "Does NOT agree") << " with theory.\n";
    return agrees ? examples::exit_success : examples::exit_check_failed;
}

}  // namespace

int main(int argc, char** argv) {
    return examples::run_program("noisy_bell", argc, argv, run);
}
