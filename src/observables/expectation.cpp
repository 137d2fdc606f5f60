// The exact observables.
#include "observables/expectation.hpp"

#include <map>
#include <pblinalg/state_vector_cpu.hpp>

#include "core/complex_math.hpp"
#include "core/parallel.hpp"
#include "observables/pauli_sums.hpp"

namespace pblinalg::cpu {
namespace {

/// Sum of `part(begin, end)` over blocks that cover [0, count), in the order of the blocks.
template <class Sum, class Part>
Sum sum_of_blocks(Index count, int num_threads, const Part& part) {
    std::map<Index, Sum> sums;
    for_each_block(count, count, num_threads, [&](Index begin, Index end) {
        const Sum own = part(begin, end);
#pragma omp critical(pblinalg_sum_of_blocks)
        sums[begin] = own;
    });
    Sum total{};
    for (const auto& [begin, own] : sums)
        total += own;
    return total;
}

/// i^power.
template <class T>
std::complex<T> phase_of(unsigned int power) {
    constexpr T re[] = {1, 0, -1, 0};
    constexpr T im[] = {0, 1, 0, -1};
    return {re[power % 4], im[power % 4]};
}

/// <P> of every term on a pure state.
template <class T>
std::vector<T> all_term_values(std::complex<T>* amplitudes, WObservable<T>& observable, Index size,
                               int num_threads) {
    std::vector<T> values = pauli_sums(amplitudes, observable, size, num_threads);
    if (!values.empty()) return values;
    for (Index t = 0; t < observable.flip_masks.size(); ++t) {
        values.push_back(_term_value(amplitudes, observable, size, num_threads, t).real());
    }
    return values;
}

}  // namespace

template <class T>
std::complex<T> _term_value(std::complex<T>* amplitudes, WObservable<T>& observable,
                            unsigned long long size, int num_threads, unsigned long long term) {
    const Index flip = observable.flip_masks[term];
    const Index signs = observable.sign_masks[term];
    const unsigned int power = observable.phase_powers[term];
    return sum_of_blocks<T>(size, num_threads, [=](Index begin, Index end) {
        T sum = 0;
        for (Index i = begin; i < end; ++i) {
            const std::complex<T> product = cmul(amplitudes[i], std::conj(amplitudes[i ^ flip]));
            sum += cmul(product, phase_of<T>(power + 2 * count_bits(signs & i))).real();
        }
        return sum;
    });
}

template <class T>
std::complex<T> _term_value_density_matrix(std::complex<T>* amplitudes, WObservable<T>& observable,
                                           unsigned long long dim, int num_threads,
                                           unsigned long long term) {
    const Index flip = observable.flip_masks[term];
    const Index signs = observable.sign_masks[term];
    const unsigned int power = observable.phase_powers[term];
    return sum_of_blocks<std::complex<T>>(dim, num_threads, [=](Index begin, Index end) {
        std::complex<T> sum = 0;
        for (Index i = begin; i < end; ++i) {
            const std::complex<T> factor = phase_of<T>(power + 2 * count_bits(signs & i));
            sum += cmul(amplitudes[(i ^ flip) * dim + i], factor);
        }
        return sum;
    });
}

template <class T>
std::complex<T> _expectation_value(std::complex<T>* amplitudes, WObservable<T> observable,
                                   unsigned long long size, int num_threads) {
    const std::vector<T> values = all_term_values(amplitudes, observable, size, num_threads);
    std::complex<T> total = 0;
    for (std::size_t t = 0; t < values.size(); ++t)
        total += observable.coefficients[t] * values[t];
    return observable.constant + total;
}

template <class T>
std::complex<T> _expectation_value_density_matrix(std::complex<T>* amplitudes,
                                                  WObservable<T> observable, unsigned long long dim,
                                                  int num_threads) {
    std::complex<T> total = 0;
    for (std::size_t t = 0; t < observable.flip_masks.size(); ++t) {
        total += cmul(observable.coefficients[t],
                      _term_value_density_matrix(amplitudes, observable, dim, num_threads, t));
    }
    return observable.constant + total;
}

template <class T>
std::complex<T> PybindLinAlgStateVectorCPU<T>::expectation_value(WObservable<T> observable) {
    if (density_matrix) {
        return _expectation_value_density_matrix(state.get(), std::move(observable),
                                                 bit(nqubits / 2), num_threads);
    }
    return _expectation_value(state.get(), std::move(observable), size, num_threads);
}

template <class T>
std::vector<std::complex<T>> PybindLinAlgStateVectorCPU<T>::terms_expectations_values(
    WObservable<T> observable) {
    std::vector<std::complex<T>> values;
    if (density_matrix) {
        for (std::size_t t = 0; t < observable.flip_masks.size(); ++t) {
            values.push_back(_term_value_density_matrix(state.get(), observable, bit(nqubits / 2),
                                                        num_threads, t));
        }
    } else {
        for (const T value : all_term_values(state.get(), observable, size, num_threads))
            values.emplace_back(value);
    }
    for (std::size_t t = 0; t < values.size(); ++t)
        values[t] = cmul(observable.coefficients[t], values[t]);
    return values;
}

#define PBLINALG_INSTANTIATE(T)                                                                  \
    template std::complex<T> _term_value(std::complex<T>*, WObservable<T>&, unsigned long long,  \
                                         int, unsigned long long);                               \
    template std::complex<T> _term_value_density_matrix(                                         \
        std::complex<T>*, WObservable<T>&, unsigned long long, int, unsigned long long);         \
    template std::complex<T> _expectation_value(std::complex<T>*, WObservable<T>,                \
                                                unsigned long long, int);                        \
    template std::complex<T> _expectation_value_density_matrix(std::complex<T>*, WObservable<T>, \
                                                               unsigned long long, int);         \
    template std::complex<T> PybindLinAlgStateVectorCPU<T>::expectation_value(WObservable<T>);   \
    template std::vector<std::complex<T>>                                                        \
        PybindLinAlgStateVectorCPU<T>::terms_expectations_values(WObservable<T>);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
