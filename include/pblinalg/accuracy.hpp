// How exact a run of many gates is.
#pragma once

namespace pblinalg {

enum class Accuracy {
    /// The bits that the gates give one by one, on every processor given their coefficients:
    /// sines and cosines are those of the C library.
    exact,
    /// The same up to rounding: gates on different qubits change places, neighbours become one
    /// matrix, and products are fused into sums. Every amplitude of a normalised state agrees with
    /// the exact run within 1e-12 (double) or 2e-5 (float) after a thousand gates. The bits are
    /// those of the list, the build and the instruction set, whatever the number of workers. What
    /// becomes of infinities and NaN is not defined.
    rounding,
};

}  // namespace pblinalg
