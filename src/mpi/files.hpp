// How far a run was when its state was saved.
#pragma once

#include <cstdint>
#include <string>

#include "mpi/agreement.hpp"

namespace pblinalg::mpi {

struct RunProgress {
    std::uint64_t gates = 0;  ///< done
    std::uint64_t list = 0;   ///< digest of the list and its values
    std::string state;        ///< file of the amplitudes
};

/// Where the amplitudes that `progress` tells of go beside the checkpoint at `path`: no other run
/// writes there.
std::string state_file(const std::string& path, const RunProgress& progress);

/// The file of the amplitudes of the checkpoint at `path`; empty when there is none.
std::string saved_state(const std::string& path);

/// Replaces the file at `path` at once; collective.
/// Errors: std::runtime_error.
void write_progress(const Communicator& communicator, const std::string& path,
                    const RunProgress& progress);

/// Errors: std::runtime_error for a file that is not there or is none of these.
RunProgress read_progress(const Communicator& communicator, const std::string& path);

}  // namespace pblinalg::mpi
