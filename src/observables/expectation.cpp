// The exact observables.
#include "observables/expectation.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <map>
#include <pblinalg/state_vector_cpu.hpp>

#include "core/parallel.hpp"
#include "observables/pauli_sums.hpp"

namespace pblinalg::cpu {
namespace {

/// Adds to sums[t], for each term t, the entries (i ^ flip) * dim + i with the signs of the term,
/// for i in [begin, end). Entries are read once for all `terms`, which flip the same bits.
template <class T>
void add_signed_entries(const std::complex<T>* amplitudes, Index dim, Index begin, Index end,
                        Index flip, const std::vector<Index>& terms,
                        const std::vector<unsigned long long>& sign_masks, std::complex<T>* sums) {
    std::complex<T> entries[256];
    for (Index first = begin; first < end; first += std::size(entries)) {
        const Index count = std::min<Index>(end - first, std::size(entries));
        for (Index k = 0; k < count; ++k) {
            const Index i = first + k;
            entries[k] = amplitudes[(i ^ flip) * dim + i];
        }
        for (const Index t : terms) {
            std::complex<T> sum = 0;
            for (Index k = 0; k < count; ++k) {
                const bool odd = __builtin_parityll(sign_masks[t] & (first + k));
                sum += odd ? -entries[k] : entries[k];
            }
            sums[t] += sum;
        }
    }
}

/// <P> of every term on a density matrix.
template <class T>
std::vector<std::complex<T>> all_term_values_density_matrix(std::complex<T>* amplitudes,
                                                            WObservable<T>& observable, Index dim,
                                                            int num_threads) {
    const Index n_terms = observable.flip_masks.size();
    std::map<Index, std::vector<Index>> terms_by_flip;
    for (Index t = 0; t < n_terms; ++t)
        terms_by_flip[observable.flip_masks[t]].push_back(t);
    using Sums = std::vector<std::complex<T>>;
    const auto sums = [&](Index begin, Index end) {
        Sums own(n_terms);
        for (const auto& [flip, terms] : terms_by_flip) {
            add_signed_entries(amplitudes, dim, begin, end, flip, terms, observable.sign_masks,
                               own.data());
        }
        return own;
    };
    Sums values(n_terms);
    const Index reads = dim * terms_by_flip.size();
    for (const Sums& own : results_of_pieces<Sums>(dim, piece_count(reads, num_threads),
                                                   workers_for(reads, num_threads), sums)) {
        for (Index t = 0; t < own.size(); ++t)
            values[t] += own[t];
    }
    for (Index t = 0; t < n_terms; ++t) {
        values[t] = cmul(values[t], phase_of<T>(observable.phase_powers[t]));
        if (std::isfinite(values[t].real()) && std::isfinite(values[t].imag())) continue;
        values[t] = _term_value_density_matrix(amplitudes, observable, dim, num_threads, t);
    }
    return values;
}

}  // namespace

template <class T>
std::vector<T> all_term_values(std::complex<T>* amplitudes, WObservable<T>& observable,
                               unsigned long long size, int num_threads) {
    const Index n_terms = observable.flip_masks.size();
    std::vector<T> values(n_terms, std::numeric_limits<T>::quiet_NaN());
    if (size >= min_pauli_sums_size && n_terms > 0) {
        values = pauli_sums(amplitudes, observable, size, num_threads);
    }
    for (Index t = 0; t < n_terms; ++t) {
        if (std::isfinite(values[t])) continue;
        values[t] = _term_value(amplitudes, observable, size, num_threads, t).real();
    }
    return values;
}

template <class T>
std::complex<T> _term_value(std::complex<T>* amplitudes, WObservable<T>& observable,
                            unsigned long long size, int num_threads, unsigned long long term) {
    const Index flip = observable.flip_masks[term];
    const Index signs = observable.sign_masks[term];
    const unsigned int power = observable.phase_powers[term];
    return sum_over_pieces<T>(size, size, num_threads, [=](Index begin, Index end) {
        T sum = 0;
        for (Index i = begin; i < end; ++i)
            sum += term_product(amplitudes[i], amplitudes[i ^ flip], power, signs & i);
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
    return sum_over_pieces<std::complex<T>>(dim, dim, num_threads, [=](Index begin, Index end) {
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
    const std::vector<std::complex<T>> values =
        all_term_values_density_matrix(amplitudes, observable, dim, num_threads);
    std::complex<T> total = 0;
    for (std::size_t t = 0; t < values.size(); ++t)
        total += cmul(observable.coefficients[t], values[t]);
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
        values =
            all_term_values_density_matrix(state.get(), observable, bit(nqubits / 2), num_threads);
    } else {
        for (const T value : all_term_values(state.get(), observable, size, num_threads))
            values.emplace_back(value);
    }
    for (std::size_t t = 0; t < values.size(); ++t)
        values[t] = cmul(observable.coefficients[t], values[t]);
    return values;
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template std::vector<T> all_term_values(std::complex<T>*, WObservable<T>&, unsigned long long, \
                                            int);                                                  \
    template std::complex<T> _term_value(std::complex<T>*, WObservable<T>&, unsigned long long,    \
                                         int, unsigned long long);                                 \
    template std::complex<T> _term_value_density_matrix(                                           \
        std::complex<T>*, WObservable<T>&, unsigned long long, int, unsigned long long);           \
    template std::complex<T> _expectation_value(std::complex<T>*, WObservable<T>,                  \
                                                unsigned long long, int);                          \
    template std::complex<T> _expectation_value_density_matrix(std::complex<T>*, WObservable<T>,   \
                                                               unsigned long long, int);           \
    template std::complex<T> PybindLinAlgStateVectorCPU<T>::expectation_value(WObservable<T>);     \
    template std::vector<std::complex<T>>                                                          \
        PybindLinAlgStateVectorCPU<T>::terms_expectations_values(WObservable<T>);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
