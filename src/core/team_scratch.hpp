// Scratch memory for all workers of a region, allocated before it opens: a failure then reaches the
// caller while every amplitude is as it was.
#pragma once

#include <cstddef>
#include <memory>
#include <new>

#include "core/parallel.hpp"

namespace pblinalg::cpu {

/// `bytes` of 64-byte aligned memory for each worker of `run_team(workers, ...)`.
class TeamScratch {
  public:
    TeamScratch(int workers, std::size_t bytes)
        : stride_((bytes + 63) / 64 * 64),
          memory_(static_cast<std::byte*>(
              ::operator new (stride_* team_size(workers), std::align_val_t{64}))) {}

    void* of(int id) const { return memory_.get() + stride_ * static_cast<std::size_t>(id); }

  private:
    struct Delete {
        void operator()(std::byte* memory) const {
            ::operator delete (memory, std::align_val_t{64});
        }
    };

    std::size_t stride_;
    std::unique_ptr<std::byte[], Delete> memory_;
};

}  // namespace pblinalg::cpu
