// The random numbers of shots: each follows from the seed, the number of the shot and the number of
// the draw, so that it does not matter who draws what first.
#pragma once

#include <cstdint>
#include <pblinalg/batch.hpp>

namespace pblinalg::cpu {

/// A bijection of 64 bits each of which depends on all: shifts and products by odd numbers.
constexpr std::uint64_t mix_bits(std::uint64_t x) {
    x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9;
    x = (x ^ x >> 27) * 0x94d049bb133111eb;
    return x ^ x >> 31;
}

class ShotDraws {
  public:
    ShotDraws(std::uint64_t seed, std::uint64_t shot) : key_(seed_of_job(seed, shot)) {}

    std::uint64_t operator[](std::uint64_t number) const {
        return mix_bits(key_ + (number + 1) * step);
    }
    /// In [0, 1), a multiple of 2^-53.
    double unit(std::uint64_t number) const {
        return static_cast<double>((*this)[number] >> 11) * 0x1p-53;
    }

  private:
    /// 2^64 divided by the golden ratio: multiples of it spread evenly.
    static constexpr std::uint64_t step = 0x9e3779b97f4a7c15;
    std::uint64_t key_;
};

}  // namespace pblinalg::cpu
