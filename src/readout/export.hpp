// Export in caller order: the bit reversal of every index, as a dense copy or as a sparse map.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "core/parallel.hpp"
#include "readout/views.hpp"

namespace pblinalg::cpu {

/// Elements on a side of the square tile that `_permute_and_copy_vector_fast` moves at once, and
/// its base-2 logarithm. Rows of 16 make whole cache lines on both sides.
inline constexpr unsigned int tile_bits = 4;
inline constexpr Index tile_side = Index{1} << tile_bits;

/// Views of at least this size go tile by tile.
inline constexpr Index min_tiled_size = tile_side * tile_side;

/// `element`, or zero when its probability does not exceed `threshold_squared`.
template <sequence S>
typename S::element_type above(typename S::element_type element,
                               typename S::proba_type threshold_squared) {
    return S::probability_of(element) > threshold_squared ? element : typename S::element_type();
}

/// out[rev(k)] = view[k] for views of at least `min_tiled_size` elements.
///
/// With n bits and k = (high 4 bits: row, low n-4 bits: m), the reversed index is
/// rev(m) * 16 + rev_4(row): the 16 rows of one m lie side by side in the output, and 16
/// neighbours in m lie side by side in the input.
template <bool Threshold, class V, sequence_of<V> S>
void _permute_and_copy_vector_fast(S view, V* out, int num_threads,
                                   typename S::proba_type threshold_squared) {
    const unsigned int row_shift = view.nqubits - tile_bits;
    for_each_block(view.size / min_tiled_size, view.size, num_threads, [=](Index begin, Index end) {
        V tile[tile_side][tile_side];
        for (Index b = begin; b < end; ++b) {
            for (Index k = 0; k < tile_side; ++k) {
                const Index row = reverse_bits(k, tile_bits) << row_shift;
                for (Index j = 0; j < tile_side; ++j) {
                    const V element = view[row + b * tile_side + j];
                    tile[j][k] = Threshold ? above<S>(element, threshold_squared) : element;
                }
            }
            for (Index j = 0; j < tile_side; ++j) {
                const Index to = reverse_bits(b * tile_side + j, row_shift) * tile_side;
                std::copy(tile[j], tile[j] + tile_side, out + to);
            }
        }
    });
}

/// out[rev(k)] = view[k], unchanged.
template <class V, sequence_of<V> S>
void copy_bit_reversed(S view, V* out, int num_threads) {
    if (view.size >= min_tiled_size) {
        _permute_and_copy_vector_fast<false>(view, out, num_threads, {});
        return;
    }
    for (Index k = 0; k < view.size; ++k)
        out[reverse_bits(k, view.nqubits)] = view[k];
}

/// The dense export. Small views are always compared with the squared threshold; larger ones only
/// when it is positive, so that a threshold below 0 drops entries there and none here.
template <class T, class V, sequence_of<V> S>
void _permute_and_copy_vector_no_simd(S view, V* out, const T& threshold, int num_threads) {
    const T threshold_squared = threshold * threshold;
    if (view.size < min_tiled_size) {
        for (Index k = 0; k < view.size; ++k) {
            out[reverse_bits(k, view.nqubits)] = above<S>(view[k], threshold_squared);
        }
    } else if (threshold > 0) {
        _permute_and_copy_vector_fast<true>(view, out, num_threads, threshold_squared);
    } else {
        _permute_and_copy_vector_fast<false>(view, out, num_threads, threshold_squared);
    }
}

/// The sparse export: entries that are not zero and whose probability exceeds threshold^2, by
/// caller index. The caller owns the map.
/// Errors: std::bad_alloc.
template <class T, class V, sequence_of<V> S>
std::map<unsigned long long, V>* permute_and_map_vector(S view, const T& threshold,
                                                        int num_threads) {
    using Entry = std::pair<unsigned long long, V>;
    const T threshold_squared = threshold * threshold;
    std::vector<Entry> kept;
    for_each_block(view.size, view.size, num_threads, [&](Index begin, Index end) {
        std::vector<Entry> own;
        for (Index k = begin; k < end; ++k) {
            const V element = view[k];
            if (element != V() && S::probability_of(element) > threshold_squared) {
                own.emplace_back(reverse_bits(k, view.nqubits), element);
            }
        }
#pragma omp critical
        kept.insert(kept.end(), own.begin(), own.end());
    });
    const auto by_key = [](const Entry& a, const Entry& b) { return a.first < b.first; };
    std::sort(kept.begin(), kept.end(), by_key);
    // Sorted entries are appended at the end of the tree in constant time each.
    auto map = std::make_unique<std::map<unsigned long long, V>>();
    for (const Entry& entry : kept)
        map->insert(map->end(), entry);
    return map.release();
}

}  // namespace pblinalg::cpu
