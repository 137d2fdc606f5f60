// The worker count of a request.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <pblinalg/pblinalg.hpp>
#include <thread>

namespace pblinalg {
namespace {

TEST(Threads, AreLimitedToTheHardwareFromAboveOnly) {
    const int hardware = static_cast<int>(std::thread::hardware_concurrency());
    for (const int request : {1, 2, 3, hardware, hardware + 1, 64, std::numeric_limits<int>::max()})
        EXPECT_EQ(get_num_threads(request), std::min(request, hardware));
    for (const int request : {0, -1, -64, std::numeric_limits<int>::min()})
        EXPECT_EQ(get_num_threads(request), request);
}

TEST(Threads, AreStoredAsRequested) {
    cpu::PybindLinAlgStateVectorCPU<float> state(1);
    for (const int request : {0, -5, 64, 1}) {
        state.set_num_threads(request);
        EXPECT_EQ(state.num_threads, request);
    }
}

}  // namespace
}  // namespace pblinalg
