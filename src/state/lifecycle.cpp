// Construction, resizing, release and the ways to set all amplitudes.
#include <algorithm>
#include <chrono>
#include <pblinalg/state_vector_cpu.hpp>

#include "core/aligned_array.hpp"
#include "core/parallel.hpp"
#include "oracles/product_state.hpp"
#include "readout/export.hpp"

namespace pblinalg {
namespace {

/// Seconds in the low half, microseconds within the second in the high half.
unsigned int clock_seed() {
    using std::chrono::microseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t t = std::chrono::duration_cast<microseconds>(now).count();
    const std::int64_t s = t / 1000000;
    const std::int64_t u = t - s * 1000000;
    return static_cast<unsigned int>(static_cast<std::uint16_t>(s)) |
           static_cast<unsigned int>(static_cast<std::uint16_t>(u)) << 16;
}

/// 2^nqubits, or a size that no array can have where 64 bits do not hold it.
unsigned long long size_of(unsigned int nqubits) {
    return nqubits < 64 ? cpu::bit(nqubits) : ~0ull;
}

}  // namespace

PybindLinAlgStateVector::PybindLinAlgStateVector() : seed(clock_seed()), rng(seed) {}

PybindLinAlgStateVector::~PybindLinAlgStateVector() = default;

std::vector<std::string>& PybindLinAlgStateVector::get_named_ctrl_gates() {
    return named_ctrl_gates;
}

namespace cpu {

template <class T>
PybindLinAlgStateVectorCPU<T>::PybindLinAlgStateVectorCPU(unsigned int nqubits)
    : nqubits(nqubits),
      size(size_of(nqubits)),
      state(nullptr, aligned_array_delete<std::complex<T>>),
      density_matrix(false),
      num_threads(1),
      named_ctrl_gates{"X", "Y", "Z", "H", "S", "T", "RX", "RY", "RZ", "PH"} {
    // The base has seeded from an earlier reading of the clock; this second one is the one in use.
    seed = clock_seed();
    rng.seed(seed);
    state = new_zeroed_array<std::complex<T>>(size, num_threads);
}

template <class T>
PybindLinAlgStateVectorCPU<T>::~PybindLinAlgStateVectorCPU() = default;

template <class T>
void PybindLinAlgStateVectorCPU<T>::resize(unsigned int nqubits) {
    if (nqubits == this->nqubits) return;
    const bool grows = nqubits > this->nqubits;
    this->nqubits = nqubits;
    size = size_of(nqubits);
    if (!grows) return;
    state.reset();
    state = new_zeroed_array<std::complex<T>>(size, num_threads);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::reset(std::optional<unsigned long long> source) {
    if (source) {
        const auto* const amplitudes = reinterpret_cast<const std::complex<T>*>(*source);
        copy_bit_reversed(SVSequence<std::complex<T>>{amplitudes, nqubits, size}, state.get(),
                          num_threads);
        return;
    }
    std::complex<T>* const amplitudes = state.get();
    for_each_block(size, size, num_threads, [=](Index begin, Index end) {
        std::fill(amplitudes + begin, amplitudes + end, std::complex<T>());
    });
    amplitudes[0] = 1;
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::reset_to_str(std::string description) {
    const ProductState<T> product(description, nqubits);
    std::complex<T>* const amplitudes = state.get();
    // Deliberately the request as it is, not limited to the hardware.
    for_each_block_of_team(size, num_threads, [=](Index begin, Index end) {
        for (Index i = begin; i < end; ++i)
            amplitudes[i] = product(i);
    });
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::release_memory() {
    nqubits = 0;
    size = 0;
    state.reset();
}

template <class T>
std::vector<std::string>& PybindLinAlgStateVectorCPU<T>::get_named_ctrl_gates() {
    return named_ctrl_gates;
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::set_num_threads(int num_threads) {
    this->num_threads = num_threads;
}

template class PybindLinAlgStateVectorCPU<float>;
template class PybindLinAlgStateVectorCPU<double>;

}  // namespace cpu
}  // namespace pblinalg
