// Allocations that fail: every one must reach the caller as an exception, from parallel regions
// too.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>

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

template <class T>
class Allocations : public ::testing::Test {};
TYPED_TEST_SUITE(Allocations, Precisions);

TYPED_TEST(Allocations, ThatFailReachTheCaller) {
    using T = TypeParam;
    using S = StateVector<T>;
    constexpr unsigned int n = 16;
    S state(n);
    state.reset();
    for (unsigned int q = 0; q < n; ++q)
        state.apply_H(q);
    Amplitudes<T> matrix = filled<T>(64, Filling::ordinary);
    WObservable<T> observable{{1, 2}, {1, 6}, {4, 3}, {0, 1}, 0, 0};
    PybindLinAlgWCircuit<T> circuit(n);
    for (unsigned int q = 0; q < n; ++q)
        circuit.add_gate("RX", {T(0.3)}, {q});
    std::vector<T> distribution(std::size_t{1} << 10);
    std::vector<unsigned long long> shots(1000);
    const Qubits ten{0, 2, 3, 5, 6, 8, 10, 11, 13, 15};
    const std::function<void()> calls[] = {
        [&] { delete state.get_mapped_statevector(0); },
        [&] { state.get_distribution(distribution.data(), 0, ten); },
        [&] { delete state.get_mapped_distribution(0, ten); },
        [&] { state.sample(shots.data(), shots.size()); },
        [&] { state.expectation_value(observable); },
        [&] { state.terms_expectations_values(observable); },
        [&] {
            state.apply_nqbit_gate({0, 7, 15}, matrix);
        },
        [&] { state.simulate_circuit(circuit); },
    };
    for (const int workers : {1, 2}) {
        state.set_num_threads(workers);
        for (std::size_t c = 0; c < std::size(calls); ++c) {
            long failures = 0;
            for (bool failed = true; failed && failures < 60; ++failures) {
                allocations_left = failures;
                try {
                    calls[c]();
                    failed = false;
                } catch (const std::bad_alloc&) {
                }
                allocations_left = -1;
            }
            EXPECT_GT(failures, 1) << "call " << c << " allocates nothing";
        }
    }
}

}  // namespace
}  // namespace pblinalg::test
