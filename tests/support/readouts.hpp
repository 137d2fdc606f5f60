// What tests of readouts share: states without symmetry, the probabilities of their elements, and
// generators whose next draws are known.
#pragma once

#include <algorithm>
#include <memory>
#include <sstream>

#include "support/states.hpp"

namespace pblinalg::test {

/// A state of `n` qubits whose amplitudes all differ, norm around 1. As a density matrix of n/2
/// qubits its diagonal has negative entries too.
template <class T>
std::unique_ptr<StateVector<T>> random_readout_state(unsigned int n, bool density_matrix) {
    auto state = std::make_unique<StateVector<T>>(n);
    state->density_matrix = density_matrix;
    std::mt19937_64 random(n);
    std::uniform_real_distribution<T> part(-1, 1);
    const T scale = std::sqrt(T(1.5) / static_cast<T>(state->size));
    for (std::size_t i = 0; i < state->size; ++i)
        state->state[i] = {scale * part(random), scale * part(random)};
    return state;
}

/// One list of qubits below n, in random order, for every subset; above 6 qubits only for some.
inline std::vector<Qubits> every_list(unsigned int n) {
    std::vector<Qubits> lists;
    std::mt19937 random(n);
    for (unsigned int subset = 0; subset < (1u << n); ++subset) {
        if (n > 6 && random() % 64 != 0) continue;
        Qubits list;
        for (unsigned int q = 0; q < n; ++q) {
            if (subset >> q & 1) list.push_back(q);
        }
        std::shuffle(list.begin(), list.end(), random);
        lists.push_back(list);
    }
    return lists;
}

/// The word that the generator's output function turns into `output`.
inline std::uint64_t untempered(std::uint64_t output) {
    const auto undo = [](std::uint64_t x, auto step) {
        std::uint64_t y = x;
        for (int i = 0; i < 4; ++i)
            y = x ^ step(y);
        return y;
    };
    output = undo(output, [](std::uint64_t y) { return y >> 43; });
    output = undo(output, [](std::uint64_t y) { return y << 37 & 0xFFF7EEE000000000u; });
    output = undo(output, [](std::uint64_t y) { return y << 17 & 0x71D67FFFEDA60000u; });
    return undo(output, [](std::uint64_t y) { return y >> 29 & 0x5555555555555555u; });
}

/// Makes `outputs` the next draws of `generator`.
inline void script(std::mt19937_64& generator, const std::vector<std::uint64_t>& outputs) {
    std::stringstream words;
    for (std::size_t k = 0; k < std::mt19937_64::state_size; ++k)
        words << (k < outputs.size() ? untempered(outputs[k]) : 1) << ' ';
    words << 0;
    words >> generator;
}

/// The probability of every element that readouts see, in index order.
template <class T>
std::vector<T> probabilities(const StateVector<T>& state) {
    std::vector<T> values;
    if (state.density_matrix) {
        const std::size_t rows = std::size_t{1} << state.nqubits / 2;
        for (std::size_t k = 0; k < rows; ++k)
            values.push_back(state.state[k * rows + k].real());
    } else {
        for (std::size_t i = 0; i < state.size; ++i) {
            const T re = state.state[i].real(), im = state.state[i].imag();
            values.push_back(std::isinf(re) || std::isinf(im) ? std::numeric_limits<T>::infinity()
                                                              : std::fma(re, re, im * im));
        }
    }
    return values;
}

}  // namespace pblinalg::test
