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
    // Vector code reads and writes back a whole register even where a state is narrower.
    const auto widest_register = static_cast<std::size_t>(alignment);
    const std::size_t bytes = std::max<std::size_t>(size * sizeof(Element), widest_register);
    auto* const memory = static_cast<char*>(::operator new[](bytes, alignment));
    advise_huge_pages(memory, bytes);
    for_each_block(bytes, size, workers,
                   [&](Index begin, Index end) { std::memset(memory + begin, 0, end - begin); });
    return {reinterpret_cast<Element*>(memory), aligned_array_delete<Element>};
}

template void aligned_array_delete<std::complex<float>>(std::complex<float>*);
template void aligned_array_delete<std::complex<double>>(std::complex<double>*);
template AlignedArray<std::complex<float>> new_zeroed_array<std::complex<float>>(unsigned long long,
                                                                                 int);
template AlignedArray<std::complex<double>> new_zeroed_array<std::complex<double>>(
    unsigned long long, int);

}  // namespace pblinalg::cpu
