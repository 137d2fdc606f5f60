// The functions of shots.hpp on any number of workers, more than the machine has processors, too.
#pragma once

#include <pblinalg/shots.hpp>

namespace pblinalg::cpu {

/// @param workers  as for `run_team`.
template <class T>
std::map<std::string, std::uint64_t> count_shots_on(const ShotProgram& program,
                                                    std::span<const double> values,
                                                    const ShotOptions& options, int workers);
template <class T>
std::vector<double> shot_expectations_on(const ShotProgram& program,
                                         const WObservable<T>& observable,
                                         std::span<const double> values, const ShotOptions& options,
                                         int workers);

}  // namespace pblinalg::cpu
