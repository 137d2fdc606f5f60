// The functions of shots.hpp with the shots cut into any number of shares.
#pragma once

#include <pblinalg/shots.hpp>

namespace pblinalg::cpu {

/// @param shares  followed side by side; what a shot reads does not depend on their number.
template <class T>
std::map<std::string, std::uint64_t> count_shots_on(const ShotProgram& program,
                                                    std::span<const double> values,
                                                    const ShotOptions& options, std::size_t shares);
template <class T>
std::vector<double> shot_expectations_on(const ShotProgram& program,
                                         const WObservable<T>& observable,
                                         std::span<const double> values, const ShotOptions& options,
                                         std::size_t shares);

}  // namespace pblinalg::cpu
