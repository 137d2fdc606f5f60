#include "core/aligned_array.hpp"

#include <algorithm>
#include <cstring>
#include <new>

#include "core/parallel.hpp"
#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace pblinalg::cpu {
namespace {

constexpr std::align_val_t alignment{64};

/// Bytes that even the smallest array has, so that kernels may load and store whole vectors of it.
constexpr std::size_t widest_vector = 64;

/// Asks for huge pages on the whole ones inside [memory, memory + bytes). A hint: it may fail.
void advise_huge_pages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr std::uintptr_t page = std::uintptr_t{2} << 20;
    const auto first = (reinterpret_cast<std::uintptr_t>(memory) + page - 1) & ~(page - 1);
    const auto last = (reinterpret_cast<std::uintptr_t>(memory) + bytes) & ~(page - 1);
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#endif
}

}  // namespace

template <class Element>
void aligned_array_delete(Element* array) {
    ::operator delete[](static_cast<void*>(array), alignment);
}

template <class Element>
AlignedArray<Element> new_zeroed_array(unsigned long long size, int workers) {
    // Sizes beyond the address space must fail, not wrap.
    if (size > static_cast<std::size_t>(-1) / 2 / sizeof(Element)) throw std::bad_alloc();
    const std::size_t bytes = std::max<std::size_t>(size * sizeof(Element), widest_vector);
    auto* const memory = static_cast<char*>(::operator new[](bytes, alignment));
    advise_huge_pages(memory, bytes);
    std::memset(memory, 0, widest_vector);
    for_each_block(size, size, workers, [&](Index begin, Index end) {
        std::memset(memory + begin * sizeof(Element), 0, (end - begin) * sizeof(Element));
    });
    return {reinterpret_cast<Element*>(memory), aligned_array_delete<Element>};
}

template void aligned_array_delete<std::complex<float>>(std::complex<float>*);
template void aligned_array_delete<std::complex<double>>(std::complex<double>*);
template AlignedArray<std::complex<float>> new_zeroed_array<std::complex<float>>(unsigned long long,
                                                                                 int);
template AlignedArray<std::complex<double>> new_zeroed_array<std::complex<double>>(
    unsigned long long, int);

}  // namespace pblinalg::cpu
