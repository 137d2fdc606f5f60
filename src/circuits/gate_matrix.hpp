// The matrix of a gate, as the library itself applies it.
#pragma once

#include <complex>
#include <pblinalg/gates.hpp>
#include <span>
#include <vector>

namespace pblinalg {

/// Row-major, the first target being the most significant bit of a row number.
/// @param kind  a gate without values of its own.
std::vector<std::complex<double>> gate_matrix(GateKind kind, std::span<const double> angles);

}  // namespace pblinalg
