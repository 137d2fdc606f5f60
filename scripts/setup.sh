# Sourced by run-demo and run-tests: finds what the build needs, installs what is missing, and
# builds presets. Every command that does something is printed before it runs.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() {
    printf '\n== %s\n' "$*"
}

run() {
    printf '+ %s\n' "$*"
    "$@"
}

# ---- What a build needs -------------------------------------------------------------------------

has_command() {
    command -v "$1" >/dev/null
}

# has_header HEADER COMPILER [options...]
has_header() {
    echo "#include <$1>" | "${@:2}" -std=c++17 -E -x c++ - >/dev/null 2>&1
}

# Prints the Debian packages whose content is missing.
missing_packages() {
    has_command g++ || echo g++
    has_command cmake || echo cmake
    has_command ninja || echo ninja-build
    has_command pkg-config || echo pkg-config
    has_header gtest/gtest.h c++ || echo libgtest-dev
    has_header benchmark/benchmark.h c++ || echo libbenchmark-dev
}

missing_mpi_packages() {
    has_command mpirun || echo openmpi-bin
    has_command mpicxx || echo libopenmpi-dev
}

# Installs the given packages, or says what to install where that is not possible.
install_packages() {
    local packages=("$@")
    local as_root=()
    if ! has_command apt-get; then
        echo "Missing, and this system has no apt-get to install it: ${packages[*]}" >&2
        echo "(these are Debian's package names)" >&2
        return 1
    fi
    if [[ $(id -u) -ne 0 ]]; then
        if ! has_command sudo || ! sudo -n true 2>/dev/null; then
            echo "Missing packages: ${packages[*]}" >&2
            echo "Installing them needs root. Run this, then start $0 again:" >&2
            echo "    apt-get install -y ${packages[*]}" >&2
            return 1
        fi
        as_root=(sudo -n)
    fi
    run "${as_root[@]}" apt-get update &&
        run "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends "${packages[@]}"
}

# install_what_is_missing FUNCTION: installs the packages that FUNCTION prints; fails where it cannot.
install_what_is_missing() {
    local packages
    mapfile -t packages < <("$1")
    if [[ ${#packages[@]} -gt 0 ]]; then
        say "Installing: ${packages[*]}"
        install_packages "${packages[@]}"
    fi
}

# ---- Building -----------------------------------------------------------------------------------

# build_preset PRESET [cmake --build arguments...]
build_preset() {
    local preset=$1
    shift
    say "Building the $preset preset"
    run cmake --preset "$preset"
    run cmake --build --preset "$preset" "$@"
}

test_preset() {
    say "Testing the $1 preset"
    run ctest --preset "$1" --parallel "$(nproc)"
}
