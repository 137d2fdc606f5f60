// Allocations that fail: every one must reach the caller as an exception, from parallel regions
// too, and find the amplitudes as they were.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <utility>

#include "support/states.hpp"

namespace {

/// Allocations until one fails; below 0 none does.
std::atomic<long> allocations_left{-1};

void* allocate(std::size_t bytes, std::size_t alignment) {
    if (allocations_left >= 0 && allocations_left-- == 0) throw std::bad_alloc();
    const std::size_t rounded = (bytes + alignment - 1) / alignment * alignment;
    void* const memory = std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

void* operator new(std::size_t bytes) {
    return allocate(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return allocate(bytes, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}

namespace pblinalg::test {
namespace {

using namespace std::string_literals;

template <class T>
class Allocations : public ::testing::Test {};
TYPED_TEST_SUITE(Allocations, Precisions);

TYPED_TEST(Allocations, ThatFailReachTheCallerBeforeAnAmplitudeChanges) {
    using T = TypeParam;
    constexpr unsigned int n = 16;
    // The outcome 1 on qubit 3 is impossible.
    Amplitudes<T> before = filled<T>(std::size_t{1} << n, Filling::ordinary);
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (i >> 3 & 1) before[i] = 0;
    }
    StateVector<T> state(n);
    const auto source = labelled<T>(before.size());
    const Amplitudes<T> matrix = filled<T>(64, Filling::ordinary);
    Amplitudes<T> diagonal(64);
    for (std::size_t r = 0; r < 8; ++r)
        diagonal[9 * r] = matrix[r];
    const WObservable<T> observable{{1, 2}, {1, 6}, {4, 3}, {0, 1}, 0, 0};
    const std::vector<SimpleTerm<T>> terms{
        {{2, 9, 0}, "XYZ", 1}, {{1, 1}, "XY", 1}, {{15, 14, 13, 12, 11, 10, 9, 8, 7, 6}, "Y", 1}};
    std::vector<std::complex<double>> inputs(std::size_t{1} << 10, 0.1);
    const std::vector<unsigned long long> words(std::size_t{1} << 10, 1);
    PybindLinAlgWCircuit<T> circuit(n);
    for (unsigned int q = 0; q < n; ++q)
        circuit.add_gate("RX", {T(0.3)}, {q});
    Amplitudes<T> copy(before.size());
    std::vector<T> distribution(std::size_t{1} << 10);
    std::vector<unsigned long long> shots(5000);
    const Qubits two{7, 15}, three{0, 7, 15};
    const std::vector<unsigned long long> marked{1, 6};
    const Qubits ten{0, 2, 3, 5, 6, 8, 10, 11, 13, 15};
    const std::pair<const char*, std::function<void()>> members[] = {
        {"reset", [&] { state.reset(reinterpret_cast<unsigned long long>(source.data())); }},
        {"reset_to_str", [&] { state.reset_to_str("0101010101010101"); }},
        {"get_permuted_statevector", [&] { state.get_permuted_statevector(copy.data(), T(0.1)); }},
        {"get_mapped_statevector", [&] { delete state.get_mapped_statevector(0); }},
        {"get_mapped_density_diag", [&] { delete state.get_mapped_density_diag(0); }},
        {"probability", [&] { state.probability(5); }},
        {"get_distribution", [&] { state.get_distribution(distribution.data(), 0, ten); }},
        {"get_mapped_distribution", [&] { delete state.get_mapped_distribution(0, ten); }},
        {"sample", [&] { state.sample(shots.data(), shots.size()); }},
        {"sample_subset", [&] { state.sample_subset(shots.data(), ten, shots.size()); }},
        {"measure", [&] { state.measure(ten); }},
        {"str", [&] { state.str(); }},
        {"expectation_value", [&] { state.expectation_value(observable); }},
        {"terms_expectations_values", [&] { state.terms_expectations_values(observable); }},
        {"evaluate_terms", [&] { state.evaluate_terms(terms, 100); }},
        {"apply_H", [&] { state.apply_H(3, two); }},
        {"apply_nqbit_gate", [&] { state.apply_nqbit_gate(three, matrix); }},
        {"apply_nqbit_gate, diagonal", [&] { state.apply_nqbit_gate(three, diagonal); }},
        {"apply_nqbit_ctrl_gate", [&] { state.apply_nqbit_ctrl_gate({1}, three, matrix); }},
        {"project, impossible", [&] { state.project(Qubits{3}, 1); }},
        {"apply_state_preparation", [&] { state.apply_state_preparation(inputs.data(), ten); }},
        {"apply_phase_oracle", [&] { state.apply_phase_oracle(marked, three); }},
        {"apply_binary_qram", [&] { state.apply_binary_qram(words.data(), ten, 3); }},
        {"simulate_circuit", [&] { state.simulate_circuit(circuit); }},
        {"apply_qram", [&] { state.apply_qram(inputs.data(), ten, 3); }},
    };
    for (const int workers : {1, 2}) {
        state.set_num_threads(workers);
        for (const auto& [name, call] : members) {
            long failures = 0;
            for (bool failed = true; failed && failures < 60; ++failures) {
                load(state, before);
                allocations_left = failures;
                try {
                    call();
                    failed = false;
                } catch (const std::bad_alloc&) {
                } catch (const std::domain_error&) {
                    failed = false;
                }
                allocations_left = -1;
                if (!failed) break;
                // Of a circuit an unknown number of gates is applied.
                if (name == "simulate_circuit"s) continue;
                EXPECT_TRUE(same_bits(state, before)) << name << ", allocation " << failures;
            }
            EXPECT_GT(failures, 0) << name << " allocates nothing";
        }
    }
}

TYPED_TEST(Allocations, ThatFailForABatchComeBeforeItsFirstJob) {
    using T = TypeParam;
    for (const unsigned int n : {3u, min_shared_batch_qubits}) {
        for (const int workers : {1, 3}) {
            long failures = 0;
            std::atomic<int> begun = 0;
            const std::function<void(const BatchJob<T>&)> job = [&](const BatchJob<T>&) {
                ++begun;
            };
            for (bool failed = true; failed; ++failures) {
                EXPECT_EQ(begun, 0);
                allocations_left = failures;
                try {
                    run_batch<T>(n, 5, job, {workers, 0, {}});
                    failed = false;
                } catch (const std::bad_alloc&) {
                }
                allocations_left = -1;
            }
            EXPECT_EQ(begun, 5);
            EXPECT_GT(failures, 2);
        }
    }
}

TYPED_TEST(Allocations, ThatFailInAGradientLeaveTheNextOneRight) {
    using T = TypeParam;
    constexpr unsigned int n = 14;
    GateList list;
    for (unsigned int q = 0; q < n; ++q)
        list.add(GateKind::U, q % n, std::vector<Angle>(3, Angle::of_parameter(q % 5)),
                 {(q + 1) % n});
    list.add_matrix({3, 0, 9}, std::vector<std::complex<double>>{
                                   0, 1, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
                                   0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,
                                   0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    list.add(GateKind::RX, 3, Angle::of_parameter(4));
    const std::vector<WObservable<T>> observables(2, {{1, 2}, {1, 6}, {4, 3}, {0, 1}, 0, 0});
    const std::vector<double> values(5, 0.3);
    StateVector<T> state(n);
    const auto gradient = [&] {
        state.reset();
        return value_and_gradient<T>(state, list, observables, values);
    };
    const Gradient expected = gradient();
    for (const int workers : {1, 2}) {
        state.set_num_threads(workers);
        list.add(GateKind::GPHASE, {}, 0.0);  // forgets the plans
        long failures = 0;
        for (bool failed = true; failed; ++failures) {
            allocations_left = failures;
            try {
                gradient();
                failed = false;
            } catch (const std::bad_alloc&) {
            }
            allocations_left = -1;
        }
        EXPECT_GT(failures, 20);
        EXPECT_EQ(gradient().jacobian, expected.jacobian);
    }
}

}  // namespace
}  // namespace pblinalg::test
