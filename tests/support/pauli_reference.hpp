// Pauli strings as a textbook has them: letters and 2 x 2 matrices in long double, no bit masks.
#pragma once

#include <string>

#include "support/textbook_reference.hpp"

namespace pblinalg::test {

template <class T>
long double norm_of(const Amplitudes<T>& amplitudes) {
    long double norm = 0;
    for (const auto& a : amplitudes)
        norm += std::norm(LongComplex(a));
    return norm;
}

inline LongMatrix pauli_matrix(char letter) {
    const LongComplex i(0, 1);
    if (letter == 'X') return {0, 1, 1, 0};
    if (letter == 'Y') return {0, -i, i, 0};
    return {1, 0, 0, letter == 'Z' ? -1.0L : 1.0L};
}

/// Letter q of `letters` acts on qubit q.
inline LongMatrix apply_pauli_string(LongMatrix vector, const std::string& letters) {
    for (unsigned int q = 0; q < letters.size(); ++q) {
        const LongMatrix m = pauli_matrix(letters[q]);
        const std::size_t step = std::size_t{1} << q;
        for (std::size_t i = 0; i < vector.size(); ++i) {
            if (i & step) continue;
            const LongComplex zero = vector[i];
            const LongComplex one = vector[i | step];
            vector[i] = m[0] * zero + m[1] * one;
            vector[i | step] = m[2] * zero + m[3] * one;
        }
    }
    return vector;
}

/// <vector| string |vector>.
inline LongComplex pauli_expectation(const LongMatrix& vector, const std::string& letters) {
    const LongMatrix image = apply_pauli_string(vector, letters);
    LongComplex sum = 0;
    for (std::size_t i = 0; i < vector.size(); ++i)
        sum += std::conj(vector[i]) * image[i];
    return sum;
}

/// The trace of string times matrix, of `dim` rows, row-major, with qubit q as bit q of a row.
inline LongComplex pauli_trace(const LongMatrix& matrix, std::size_t dim,
                               const std::string& letters) {
    LongComplex trace = 0;
    for (std::size_t column = 0; column < dim; ++column) {
        LongMatrix vector(dim);
        for (std::size_t row = 0; row < dim; ++row)
            vector[row] = matrix[row * dim + column];
        trace += apply_pauli_string(vector, letters)[column];
    }
    return trace;
}

/// Adds `coefficient` times a string of letters, compiled to masks, to an observable.
template <class T>
void add_pauli_string(WObservable<T>& observable, const std::string& letters,
                      std::complex<T> coefficient) {
    unsigned long long flips = 0, signs = 0;
    unsigned int ys = 0;
    for (unsigned int q = 0; q < letters.size(); ++q) {
        if (letters[q] == 'X' || letters[q] == 'Y') flips |= 1ull << q;
        if (letters[q] == 'Z' || letters[q] == 'Y') signs |= 1ull << q;
        if (letters[q] == 'Y') ++ys;
    }
    observable.coefficients.push_back(coefficient);
    observable.flip_masks.push_back(flips);
    observable.sign_masks.push_back(signs);
    observable.phase_powers.push_back(ys);
}

inline std::string random_letters(unsigned int n, const char* alphabet,
                                  std::mt19937_64& generator) {
    std::string letters(n, 'I');
    for (char& letter : letters)
        letter = alphabet[generator() % std::strlen(alphabet)];
    return letters;
}

}  // namespace pblinalg::test
