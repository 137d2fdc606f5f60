#include <pblinalg/version.hpp>

namespace pblinalg {

const char* version() {
    return PBLINALG_VERSION;
}

}  // namespace pblinalg
