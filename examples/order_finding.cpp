// Quantum order finding, the heart of factoring: the smallest r > 0 with base^r = 1 (mod number).
// The result is compared with the exact outcome distribution of an ideal machine.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <iomanip>
#include <iostream>
#include <limits>
#include <numbers>
#include <numeric>
#include <pblinalg/pblinalg.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/command_line.hpp"
#include "support/memory.hpp"

namespace {

using Number = unsigned long long;
using Clock = std::chrono::steady_clock;

struct Options {
    unsigned int qubits = 25;
    Number number = 21;
    Number base = 2;
    unsigned int outcomes = 12;
    int threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    std::string precision = "double";
};

Number power_mod(Number base, Number exponent, Number number) {
    Number power = 1 % number;
    for (; exponent > 0; --exponent)
        power = power * base % number;
    return power;
}

/// The order by trying: what the quantum computation is to find.
Number true_order(Number base, Number number) {
    Number order = 1;
    for (Number power = base % number; power != 1; power = power * base % number)
        ++order;
    return order;
}

/// How the qubits are shared out. The counting register comes first, its qubit 0 being the most
/// significant bit of a count; the work register holds numbers below `number` in the same way.
struct Registers {
    unsigned int counting;
    unsigned int work;

    explicit Registers(const Options& options) : counting(0), work(0) {
        while ((Number{1} << work) < options.number)
            ++work;
        if (options.qubits < 3 * work) {
            throw examples::UsageError("--qubits must be " + std::to_string(3 * work) +
                                       " or more: " + std::to_string(work) +
                                       " to hold numbers below " + std::to_string(options.number) +
                                       " and " + std::to_string(2 * work) +
                                       " to resolve the order");
        }
        counting = options.qubits - work;
    }

    Number counts() const { return Number{1} << counting; }
};

// ---- The quantum computation -------------------------------------------------------------------

/// Every count at once, and the number 1 in the work register.
template <class T>
pblinalg::PybindLinAlgWCircuit<T> preparation(const Registers& registers) {
    const unsigned int nqubits = registers.counting + registers.work;
    pblinalg::PybindLinAlgWCircuit<T> circuit(nqubits);
    circuit.add_gate("X", {}, {nqubits - 1});
    for (unsigned int qubit = 0; qubit < registers.counting; ++qubit)
        circuit.add_gate("H", {}, {qubit});
    return circuit;
}

/// diag(1, 1, 1, e^(i angle)) in the vocabulary of circuits.
template <class T>
void add_controlled_phase(pblinalg::PybindLinAlgWCircuit<T>& circuit, T angle, unsigned int control,
                          unsigned int target) {
    circuit.add_gate("PH", {angle / 2}, {control});
    circuit.add_gate("CNOT", {}, {control, target});
    circuit.add_gate("PH", {-angle / 2}, {target});
    circuit.add_gate("CNOT", {}, {control, target});
    circuit.add_gate("PH", {angle / 2}, {target});
}

/// The inverse quantum Fourier transform of the counting register.
template <class T>
pblinalg::PybindLinAlgWCircuit<T> inverse_fourier_transform(const Registers& registers) {
    const unsigned int n = registers.counting;
    pblinalg::PybindLinAlgWCircuit<T> circuit(n + registers.work);
    for (unsigned int qubit = 0; qubit < n / 2; ++qubit)
        circuit.add_gate("SWAP", {}, {qubit, n - 1 - qubit});
    for (unsigned int target = n; target-- > 0;) {
        for (unsigned int control = n; --control > target;) {
            const int distance = static_cast<int>(control - target);
            add_controlled_phase(circuit, -std::ldexp(std::numbers::pi_v<T>, -distance), control,
                                 target);
        }
        circuit.add_gate("H", {}, {target});
    }
    return circuit;
}

/// The permutation x -> factor * x (mod number) of the work register; values that are no residues
/// stay where they are. Reversible because `factor` has no divisor in common with `number`.
template <class T>
std::vector<std::complex<T>> multiplication_matrix(Number factor, Number number,
                                                   unsigned int work) {
    const Number size = Number{1} << work;
    std::vector<std::complex<T>> matrix(size * size);
    for (Number x = 0; x < size; ++x) {
        const Number image = x < number ? factor * x % number : x;
        matrix[image * size + x] = 1;
    }
    return matrix;
}

/// Multiplies the work register by base^count, one controlled multiplication per counting qubit.
/// @return the number of gates applied.
template <class T>
std::size_t multiply_by_power(pblinalg::cpu::PybindLinAlgStateVectorCPU<T>& state,
                              const Options& options, const Registers& registers) {
    std::vector<unsigned int> work(registers.work);
    std::iota(work.begin(), work.end(), registers.counting);
    std::size_t n_gates = 0;
    Number factor = options.base;
    for (unsigned int qubit = registers.counting; qubit-- > 0;) {
        if (factor != 1) {
            state.apply_nqbit_ctrl_gate(
                {qubit}, work, multiplication_matrix<T>(factor, options.number, registers.work));
            ++n_gates;
        }
        factor = factor * factor % options.number;
    }
    return n_gates;
}

/// Probability of every count, from the exported amplitudes: the high bits of an exported index are
/// the counting register, the low ones the work register.
template <class T>
std::vector<double> count_probabilities(pblinalg::cpu::PybindLinAlgStateVectorCPU<T>& state,
                                        const Registers& registers) {
    std::vector<std::complex<T>> amplitudes(state.size);
    state.get_permuted_statevector(amplitudes.data(), T(0));
    std::vector<double> probabilities(registers.counts());
    for (std::size_t i = 0; i < amplitudes.size(); ++i)
        probabilities[i >> registers.work] += std::norm(std::complex<double>(amplitudes[i]));
    return probabilities;
}

// ---- Theory ------------------------------------------------------------------------------------

/// The exact distribution of an ideal machine. With C counts, the counts x = k (mod order)
/// interfere among themselves for every k, so that P(y) sums |sum over those x of e^(-2 pi i x y /
/// C)|^2 / C^2, a ratio of sines.
std::vector<double> predicted_probabilities(Number order, Number counts) {
    // sin^2(pi step / C), the angle brought to [0, pi/2] in whole numbers, before it is rounded.
    const auto squared_sine = [=](Number step) {
        const Number turn = step % counts;
        const double sine =
            std::sin(std::numbers::pi * static_cast<double>(std::min(turn, counts - turn)) /
                     static_cast<double>(counts));
        return sine * sine;
    };
    const auto weight = [=](Number terms, Number step) {
        if (step % counts == 0) return static_cast<double>(terms) * static_cast<double>(terms);
        return squared_sine(terms * step) / squared_sine(step);
    };
    const Number terms = counts / order;
    const Number longer_classes = counts % order;
    const double total = static_cast<double>(counts) * static_cast<double>(counts);
    std::vector<double> probabilities(counts);
    for (Number y = 0; y < counts; ++y) {
        const double shorter =
            static_cast<double>(order - longer_classes) * weight(terms, order * y);
        const double longer = static_cast<double>(longer_classes) * weight(terms + 1, order * y);
        probabilities[y] = (shorter + longer) / total;
    }
    return probabilities;
}

/// Half the summed differences: how often two machines could be told apart.
double total_variation(const std::vector<double>& left, const std::vector<double>& right) {
    double sum = 0;
    for (std::size_t i = 0; i < left.size(); ++i)
        sum += std::abs(left[i] - right[i]);
    return sum / 2;
}

// ---- From outcomes to the order ----------------------------------------------------------------

struct Fraction {
    Number numerator;
    Number denominator;
};

/// The last convergent of count / counts whose denominator is below `limit`.
Fraction nearest_fraction(Number count, Number counts, Number limit) {
    Fraction before{1, 0};
    Fraction current{0, 1};
    for (Number numerator = counts, denominator = count; denominator != 0;) {
        const Number quotient = numerator / denominator;
        const Fraction next{quotient * current.numerator + before.numerator,
                            quotient * current.denominator + before.denominator};
        if (next.denominator >= limit) break;
        before = current;
        current = next;
        numerator = std::exchange(denominator, numerator % denominator);
    }
    return current;
}

/// The most likely counts, most likely first.
std::vector<Number> most_likely(const std::vector<double>& probabilities, std::size_t wanted) {
    std::vector<Number> counts(probabilities.size());
    std::iota(counts.begin(), counts.end(), Number{0});
    const auto middle =
        counts.begin() + static_cast<std::ptrdiff_t>(std::min(wanted, counts.size()));
    std::partial_sort(counts.begin(), middle, counts.end(), [&](Number a, Number b) {
        return probabilities[a] != probabilities[b] ? probabilities[a] > probabilities[b] : a < b;
    });
    counts.erase(middle, counts.end());
    return counts;
}

/// The order that the counts point to, or 0: the smallest common multiple of the denominators that
/// solves base^order = 1.
Number recovered_order(const std::vector<Number>& likely, const Options& options, Number counts) {
    Number order = 1;
    for (const Number count : likely) {
        const Fraction fraction = nearest_fraction(count, counts, options.number);
        const Number multiple = std::lcm(order, fraction.denominator);
        if (multiple < options.number) order = multiple;
        if (power_mod(options.base, order, options.number) == 1) return order;
    }
    return 0;
}

void print_factors(Number order, const Options& options) {
    const Number root = order % 2 == 0 ? power_mod(options.base, order / 2, options.number) : 0;
    if (root == 0 || root == options.number - 1) {
        std::cout << "Factors: this order tells none; try another --base\n";
        return;
    }
    const Number factor = std::gcd(root + options.number - 1, options.number);
    std::cout << "Factors: " << options.number << " = " << factor << " x "
              << options.number / factor << '\n';
}

void print_histogram(const std::vector<Number>& likely, const std::vector<double>& measured,
                     const std::vector<double>& predicted, Number number) {
    constexpr double bar_width = 40;
    std::cout << "\n       count     phase  fraction  probability   predicted\n" << std::fixed;
    for (const Number count : likely) {
        const Fraction fraction = nearest_fraction(count, measured.size(), number);
        const double phase = static_cast<double>(count) / static_cast<double>(measured.size());
        const auto bar = std::lround(bar_width * measured[count] / measured[likely.front()]);
        std::cout << std::setw(12) << count << std::setprecision(6) << std::setw(10) << phase
                  << std::setw(10)
                  << std::to_string(fraction.numerator) + "/" + std::to_string(fraction.denominator)
                  << std::setprecision(8) << std::setw(13) << measured[count] << std::setw(12)
                  << predicted[count] << "  " << std::string(static_cast<std::size_t>(bar), '#')
                  << '\n';
    }
    std::cout << std::defaultfloat << '\n';
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

template <class T>
int find_order(const Options& options, const Registers& registers) {
    const Number counts = registers.counts();
    examples::require_memory(
        std::to_string(options.qubits) + " qubits in " + options.precision + " precision",
        // The state, its exported copy, and three numbers for every count.
        (2 * sizeof(std::complex<T>) << options.qubits) + 3 * sizeof(double) * counts);

    std::cout << "Order of " << options.base << " modulo " << options.number << ": "
              << options.qubits << " qubits (" << registers.counting << " counting, "
              << registers.work << " work), " << options.precision << " precision, "
              << pblinalg::get_num_threads(options.threads) << " threads, "
              << examples::describe_bytes(sizeof(std::complex<T>) << options.qubits)
              << " of amplitudes\n";

    pblinalg::cpu::PybindLinAlgStateVectorCPU<T> state(options.qubits);
    state.set_num_threads(options.threads);
    state.reset();
    auto prepare = preparation<T>(registers);
    auto transform = inverse_fourier_transform<T>(registers);

    const auto start = Clock::now();
    state.simulate_circuit(prepare);
    const std::size_t n_multiplications = multiply_by_power(state, options, registers);
    const double multiplication_seconds = seconds_since(start);
    state.simulate_circuit(transform);
    const double seconds = seconds_since(start);
    const std::size_t n_gates =
        prepare.gate_names.size() + n_multiplications + transform.gate_names.size();

    std::cout << std::setprecision(3) << "Gates: " << n_gates << " in " << seconds << " s, "
              << static_cast<double>(n_gates) / seconds << " gates/s (" << n_multiplications
              << " controlled multiplications " << multiplication_seconds << " s, "
              << registers.counting << "-qubit Fourier transform "
              << seconds - multiplication_seconds << " s)\n";

    const Number expected_order = true_order(options.base, options.number);
    const std::vector<double> measured = count_probabilities(state, registers);
    const std::vector<double> predicted = predicted_probabilities(expected_order, counts);
    // Enough peaks to meet a denominator that is the order itself or to combine it from two.
    const std::vector<Number> likely =
        most_likely(measured, std::max<std::size_t>(options.outcomes, options.number));
    const Number order = recovered_order(likely, options, counts);
    print_histogram({likely.begin(), likely.begin() + std::min<std::ptrdiff_t>(options.outcomes,
                                                                               std::ssize(likely))},
                    measured, predicted, options.number);

    // Every gate may move the state by a rounding.
    const double tolerance = static_cast<double>(n_gates) * std::numeric_limits<T>::epsilon();
    const double distance = total_variation(measured, predicted);
    const bool distribution_agrees = distance <= tolerance;
    const bool order_agrees = order == expected_order;
    std::cout << "Order: " << order << (order_agrees ? ", correct" : ", WRONG: it is ")
              << (order_agrees ? "" : std::to_string(expected_order)) << '\n';
    if (order_agrees) print_factors(order, options);
    std::cout << std::setprecision(2) << "Distance from the exact distribution: " << distance
              << (distribution_agrees ? ", within " : ", MORE than ") << tolerance << '\n';
    return order_agrees && distribution_agrees ? examples::exit_success
                                               : examples::exit_check_failed;
}

int run(const std::vector<std::string>& arguments) {
    Options options;
    examples::CommandLine command_line(
        "order_finding",
        "Finds the order of a number by quantum phase estimation and factors with it.");
    command_line.add_integer("--qubits", "qubits in all", options.qubits, 6u, 56u);
    command_line.add_choice("--precision", "size of a real number", options.precision,
                            {"single", "double"});
    command_line.add_integer("--threads", "worker threads", options.threads, 1, 4096);
    command_line.add_integer("--number", "number to factor", options.number, Number{3},
                             Number{255});
    command_line.add_integer("--base", "number whose order is sought", options.base, Number{2},
                             Number{254});
    command_line.add_integer("--outcomes", "outcomes to show", options.outcomes, 1u, 64u);
    if (!command_line.read(arguments)) return examples::exit_success;

    if (options.base >= options.number) {
        throw examples::UsageError("--base must be below --number, which is " +
                                   std::to_string(options.number));
    }
    if (const Number divisor = std::gcd(options.base, options.number); divisor != 1) {
        throw examples::UsageError("--base " + std::to_string(options.base) + " and --number " +
                                   std::to_string(options.number) + " share the divisor " +
                                   std::to_string(divisor) + ", so that there is no order");
    }
    const Registers registers(options);
    return options.precision == "single" ? find_order<float>(options, registers)
                                         : find_order<double>(options, registers);
}

}  // namespace

int main(int argc, char** argv) {
    return examples::run_program("order_finding", argc, argv, run);
}
