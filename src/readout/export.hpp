// Export in caller order: the bit reversal of every index, as a dense copy or as a sparse map.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "kernels/reversal_kernels.hpp"
#include "readout/views.hpp"

namespace pblinalg::cpu {

/// Views of at least this size go tile by tile.
inline constexpr Index min_tiled_size = 256;

/// `element`, or zero when its probability does not exceed `threshold_squared`.
template <sequence S>
typename S::element_type above(typename S::element_type element,
                               typename S::proba_type threshold_squared) {
    return S::probability_of(element) > threshold_squared ? element : typename S::element_type();
}

/// out[rev(k)] = view[k], tile by tile, without those that do not exceed the limit if `Threshold`.
/// Errors: std::bad_alloc before anything is written.
template <bool Threshold, class T>
void copy_tiles(SVSequence<std::complex<T>> view, std::complex<T>* out, const ReversalTiles& tiles,
                int num_threads, T threshold_squared) {
    const int workers = workers_for(view.size, num_threads);
    const TeamScratch scratch(workers, tiles.scratch_size() * sizeof(std::complex<T>));
    run_team(workers, [&](int id, int team) {
        const Block own(tiles.count(), static_cast<Index>(id), static_cast<Index>(team), 1);
        dispatch([&]<InstructionSet set>() {
            copy_reversed<set, Threshold>(parts(view.amplitudes), parts(out), tiles, own.begin,
                                          own.end, threshold_squared,
                                          static_cast<T*>(scratch.of(id)));
        });
    });
}

/// The same for views of at least `min_tiled_size` elements.
template <bool Threshold, class T>
void _permute_and_copy_vector_fast(SVSequence<std::complex<T>> view, std::complex<T>* out,
                                   const int& num_threads, T threshold_squared) {
    copy_tiles<Threshold>(view, out, ReversalTiles(view.nqubits), num_threads, threshold_squared);
}

/// The same for a diagonal, whose elements lie far apart whatever the order.
template <bool Threshold, class T>
void _permute_and_copy_vector_fast(DMDiagSequence<T> view, T* out, const int& num_threads,
                                   T threshold_squared) {
    for_each_block(view.size, view.size, num_threads, [=](Index begin, Index end) {
        for (Index k = begin; k < end; ++k) {
            out[reverse_bits(k, view.nqubits)] =
                Threshold ? above<DMDiagSequence<T>>(view[k], threshold_squared) : view[k];
        }
    });
}

/// out[rev(k)] = view[k], unchanged.
template <class V, sequence_of<V> S>
void copy_bit_reversed(S view, V* out, int num_threads) {
    if (view.size >= min_tiled_size) {
        _permute_and_copy_vector_fast<false>(view, out, num_threads, typename S::proba_type());
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
    using Entries = std::vector<Entry>;
    const auto keep = [&](Index begin, Index end) {
        Entries own;
        for (Index k = begin; k < end; ++k) {
            const V element = view[k];
            if (element != V() && S::probability_of(element) > threshold_squared) {
                own.emplace_back(reverse_bits(k, view.nqubits), element);
            }
        }
        return own;
    };
    Entries kept;
    for (const Entries& own :
         results_of_pieces<Entries>(view.size, piece_count(view.size, num_threads),
                                    workers_for(view.size, num_threads), keep)) {
        kept.insert(kept.end(), own.begin(), own.end());
    }
    const auto by_key = [](const Entry& a, const Entry& b) { return a.first < b.first; };
    std::sort(kept.begin(), kept.end(), by_key);
    // Sorted entries are appended at the end of the tree in constant time each.
    auto map = std::make_unique<std::map<unsigned long long, V>>();
    for (const Entry& entry : kept)
        map->insert(map->end(), entry);
    return map.release();
}

}  // namespace pblinalg::cpu
