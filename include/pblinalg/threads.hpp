// The worker count of a parallel region.
#pragma once

#include <pblinalg/export.hpp>

namespace pblinalg {

/// Workers that one parallel region gets for a request of `num_threads`.
///
/// @return the smaller of the request and `std::thread::hardware_concurrency()`, which counts as 1
///         where it is unknown. A request of 0 or less comes back unchanged; a region then runs on
///         the OpenMP runtime's default team.
/// Safe from any thread.
PBLINALG_EXPORT int get_num_threads(int num_threads);

}  // namespace pblinalg
