// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, with contraction of
// multiply and add. As in exact_kernels.cpp, nothing of the standard library may be instantiated.
//
// With interleaved parts the elementwise product of a vector of a[i] with one of a[i ^ flip] holds
// re*re and im*im of each amplitude: their sum is the real part of a[i] * conj(a[i ^ flip]). With
// the parts of one factor exchanged it holds re*im and im*re, whose difference is the imaginary
// part. So lane and part are bits of the element number, dealt with once at the end, and what the
// loops see is a sum of real vectors with a sign for each vector.
#include "kernels/pauli_kernels.hpp"

#include "kernels/values.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

constexpr Index row_bits = 4;
constexpr Index row = Index{1} << row_bits;

/// Row z: the signs (-1)^popcount(z & w).
template <class T>
struct RowSigns {
    T of[row][row];
    constexpr RowSigns() : of() {
        for (Index z = 0; z < row; ++z) {
            for (Index w = 0; w < row; ++w)
                of[z][w] = count_bits(z & w) % 2 ? T(-1) : T(1);
        }
    }
};
template <class T>
constexpr RowSigns<T> row_signs;

PBLINALG_ALWAYS_INLINE bool odd(Index bits) {
    return count_bits(bits) % 2 != 0;
}

/// sum over v < count of (-1)^popcount(signs & v) * value(v).
template <class V, class Value>
PBLINALG_ALWAYS_INLINE V signed_sum(Index count, Index signs, const Value& value) {
    V sum{};
    if (count < row) {
        for (Index v = 0; v < count; ++v)
            sum = odd(signs & v) ? sum - value(v) : sum + value(v);
        return sum;
    }
    const auto* const sign = row_signs<typename V::Real>.of[signs % row];
    for (Index first = 0; first < count; first += row) {
        V partial[4] = {};
        for (Index w = 0; w < row; ++w) {
            partial[w % 4].v += sign[w] * value(first + w).v;
        }
        const V rows = (partial[0] + partial[1]) + (partial[2] + partial[3]);
        sum = odd(signs & first) ? sum - rows : sum + rows;
    }
    return sum;
}

/// In place: a[z] becomes the sum over u of (-1)^popcount(z & u) * a[u].
template <class V>
PBLINALG_ALWAYS_INLINE void transform_signs(V (&a)[8]) {
    for (int half = 1; half < 8; half *= 2) {
        for (int u = 0; u < 8; ++u) {
            if (u & half) continue;
            const V sum = a[u] + a[u + half];
            a[u + half] = a[u] - a[u + half];
            a[u] = sum;
        }
    }
}

constexpr Index stage_bits = 3;
constexpr Index stage = Index{1} << stage_bits;

/// How many of the lowest bits of a vector's number are summed over all signs at once, in stages
/// of three, before the terms sum over the rest.
PBLINALG_ALWAYS_INLINE Index stages_for(Index n_terms, Index n_vectors) {
    if (n_terms < 2) return 0;
    return n_terms < 16 || n_vectors < stage * stage ? 1 : 2;
}

template <int element_flip, class T>
[[gnu::noinline]] void add_products(const BlockPair<T>& blocks, const Index* sign_masks,
                                    Index n_terms, T* sums, T* scratch) {
    using V = Vector<this_set, T>;
    const Index n_vectors = bit(blocks.bits - V::lane_bits);
    const Index vector_flip = blocks.low_flip >> V::lane_bits;
    const auto product = [&](Index v) -> V {
        const V left = V::load(blocks.left + v * V::n_elements);
        const V right = V::load(blocks.right + (v ^ vector_flip) * V::n_elements);
        return {left.v * right.template xor_elements<element_flip>().v};
    };
    const auto kept = [&](Index v) { return V::load(scratch + v * V::n_elements); };
    const auto keep = [&](V value, Index v) { value.store(scratch + v * V::n_elements); };

    const Index stages = stages_for(n_terms, n_vectors);
    if (stages > 0) {
        for (Index first = 0; first < n_vectors; first += stage) {
            V a[stage];
            for (Index u = 0; u < stage; ++u)
                a[u] = product(first + u);
            transform_signs(a);
            for (Index z = 0; z < stage; ++z)
                keep(a[z], first + z);
        }
    }
    if (stages > 1) {
        for (Index group = 0; group < n_vectors; group += stage * stage) {
            for (Index first = group; first < group + stage; ++first) {
                V a[stage];
                for (Index u = 0; u < stage; ++u)
                    a[u] = kept(first + u * stage);
                transform_signs(a);
                for (Index z = 0; z < stage; ++z)
                    keep(a[z], first + z * stage);
            }
        }
    }

    const Index summed_bits = stages * stage_bits;
    for (Index t = 0; t < n_terms; ++t) {
        const Index signs = sign_masks[t] >> V::lane_bits & (n_vectors - 1);
        const Index place = signs & low_mask(static_cast<unsigned int>(summed_bits));
        const V own =
            stages == 0 ? signed_sum<V>(n_vectors, signs, product)
                        : signed_sum<V>(n_vectors >> summed_bits, signs >> summed_bits,
                                        [&](Index w) { return kept(place + (w << summed_bits)); });
        T* const at = sums + t * sums_per_term<T>;
        const V old = V::load(at);
        const bool negative = odd(sign_masks[t] >> blocks.bits & blocks.left_number);
        (negative ? old - own : old + own).store(at);
    }
}

/// Terms whose coefficients are summed up at a time.
constexpr Index max_summed_terms = 16;

template <int element_flip, class T>
[[gnu::noinline]] void add_amplitudes(const T* from, Index number, T* to,
                                      const SignedTerms<T>& terms, Index first, Index count) {
    using V = Vector<this_set, T>;
    // What term t multiplies the elements of a vector of `to` with: its sign there, and its
    // negative for vectors that it negates.
    V coefficients[max_summed_terms][2];
    Index signs[max_summed_terms];
    for (Index t = 0; t < count; ++t) {
        const Index mask = terms.sign_masks[first + t];
        signs[t] = mask >> V::lane_bits;
        alignas(64) T elements[V::n_elements];
        const bool negative = odd(mask >> terms.bits & number);
        for (int e = 0; e < V::n_elements; ++e) {
            // The element that comes here; i * (re, im) is (-im, re).
            const int source = e ^ element_flip;
            const bool minus = terms.imaginary && e % 2 == 0;
            const bool sign = odd(mask & static_cast<Index>(source >> 1)) != (negative != minus);
            elements[e] = sign ? -terms.weights[first + t] : terms.weights[first + t];
        }
        coefficients[t][0] = V::load(elements);
        coefficients[t][1] = V{} - coefficients[t][0];
    }
    const Index n_vectors = bit(terms.bits - V::lane_bits);
    const Index vector_flip = terms.low_flip >> V::lane_bits;
    for (Index v = 0; v < n_vectors; ++v) {
        V sum = coefficients[0][odd(signs[0] & v)];
        for (Index t = 1; t < count; ++t)
            sum = sum + coefficients[t][odd(signs[t] & v)];
        const V moved = V::load(from + v * V::n_elements).template xor_elements<element_flip>();
        T* const at = to + (v ^ vector_flip) * V::n_elements;
        V{V::load(at).v + sum.v * moved.v}.store(at);
    }
}

/// Calls `body.operator()<value>()` for a value in [0, count).
template <int count, class Body>
PBLINALG_ALWAYS_INLINE void with_constant(int value, const Body& body) {
    if constexpr (count > 1) {
        if (value < count - 1) return with_constant<count - 1>(value, body);
    }
    body.template operator()<count - 1>();
}

}  // namespace

template <InstructionSet set, class T>
void add_signed_products(const BlockPair<T>& blocks, bool imaginary, const Index* sign_masks,
                         Index n_terms, T* sums, T* scratch) {
    using V = Vector<set, T>;
    const int lane_flip = static_cast<int>(blocks.low_flip & (V::lanes - 1));
    with_constant<V::n_elements>(2 * lane_flip + imaginary, [&]<int element_flip>() {
        add_products<element_flip>(blocks, sign_masks, n_terms, sums, scratch);
    });
}

template <InstructionSet set, class T>
T fold_signed_sums(const T* sums, Index sign_mask, bool imaginary) {
    using V = Vector<set, T>;
    T total = 0;
    for (Index e = 0; e < V::n_elements; ++e) {
        const bool subtracted = imaginary && e % 2 == 0;
        total += odd(sign_mask & (e >> 1)) != subtracted ? -sums[e] : sums[e];
    }
    return total;
}

template <InstructionSet set, class T>
void add_signed_amplitudes(const T* from, Index number, T* to, const SignedTerms<T>& terms) {
    using V = Vector<set, T>;
    const int lane_flip = static_cast<int>(terms.low_flip & (V::lanes - 1));
    with_constant<V::n_elements>(2 * lane_flip + terms.imaginary, [&]<int element_flip>() {
        for (Index first = 0; first < terms.n_terms; first += max_summed_terms) {
            const Index left = terms.n_terms - first;
            add_amplitudes<element_flip>(from, number, to, terms, first,
                                         left < max_summed_terms ? left : max_summed_terms);
        }
    });
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template void add_signed_products<this_set, T>(const BlockPair<T>&, bool, const Index*, Index, \
                                                   T*, T*);                                        \
    template T fold_signed_sums<this_set, T>(const T*, Index, bool);                               \
    template void add_signed_amplitudes<this_set, T>(const T*, Index, T*, const SignedTerms<T>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
