// As many processors as a test wants, so that a request for several workers gets them on a machine
// with one, and one on a machine with several.
#pragma once

#include <thread>

namespace pblinalg::test {

/// What the library is told that this machine has.
inline unsigned int processors = 8;

/// Calls `body(request)` for requests that all must round alike, with as many workers and with one.
template <class Body>
void for_each_shared_request(const Body& body) {
    for (const unsigned int limit : {8u, 1u}) {
        processors = limit;
        for (const int request : {2, 3, 5, 7, 0})
            body(request);
    }
    processors = 8;
}

}  // namespace pblinalg::test

/// Takes the place of the standard library's.
unsigned int std::thread::hardware_concurrency() noexcept {
    return pblinalg::test::processors;
}
