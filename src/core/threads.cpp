#include <algorithm>
#include <pblinalg/threads.hpp>
#include <thread>

namespace pblinalg {

int get_num_threads(int num_threads) {
    // The answer is known without asking the system, which takes microseconds.
    if (num_threads <= 1) return num_threads;
    // An unknown concurrency, 0, must not turn into a request for the default team.
    const unsigned int hardware = std::max(1u, std::thread::hardware_concurrency());
    return std::min(num_threads, static_cast<int>(hardware));
}

}  // namespace pblinalg
