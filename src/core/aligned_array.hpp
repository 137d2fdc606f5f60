// The amplitude array: 64-byte aligned, zero-filled, on huge pages where the system has them.
#pragma once

#include <complex>
#include <memory>

namespace pblinalg::cpu {

template <class Element>
using AlignedArray = std::unique_ptr<Element[], void (*)(Element*)>;

/// Releases an array of `new_zeroed_array`; null is fine.
template <class Element>
void aligned_array_delete(Element* array);

/// `size` elements of zero bytes, touched first by `workers` workers. The memory reaches to the end
/// of the last 64 bytes that it enters.
/// Errors: std::bad_alloc.
template <class Element>
AlignedArray<Element> new_zeroed_array(unsigned long long size, int workers);

extern template void aligned_array_delete<std::complex<float>>(std::complex<float>*);
extern template void aligned_array_delete<std::complex<double>>(std::complex<double>*);
extern template AlignedArray<std::complex<float>> new_zeroed_array<std::complex<float>>(
    unsigned long long, int);
extern template AlignedArray<std::complex<double>> new_zeroed_array<std::complex<double>>(
    unsigned long long, int);

}  // namespace pblinalg::cpu
