#!/usr/bin/env bash
# Builds the extension under the address and undefined-behaviour sanitizers beside the sources and
# runs the tests with it. Needs the active Python to have nanobind, numpy and pytest.
set -euo pipefail
python3 -c 'import nanobind, numpy, pytest' || {
    echo "first: pip install nanobind numpy pytest" >&2
    exit 1
}
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

build=build/python-sanitizer
flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g1"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPBLINALG_BUILD_PYTHON=ON \
    -DPBLINALG_BUILD_TESTS=OFF -DPBLINALG_BUILD_BENCHMARKS=OFF -DPBLINALG_BUILD_EXAMPLES=OFF \
    -DPython_EXECUTABLE="$(command -v python3)" -DCMAKE_CXX_FLAGS="$flags"
cmake --build "$build" --target _core

package=$build/package/pblinalg
mkdir -p "$package"
cp python/pblinalg/*.py "$package"
cp "$build"/python/_core*.so "$package"

# The interpreter is not instrumented: the runtime is loaded first, and what the interpreter itself
# never frees is not reported. An allocation that is too large must return null to be refused.
LD_PRELOAD="$(c++ -print-file-name=libasan.so) $(c++ -print-file-name=libubsan.so)" \
    ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1 \
    PYTHONPATH=$PWD/$build/package PYTHONMALLOC=malloc \
    python3 -m pytest -q -p no:cacheprovider "${@:-python/tests}"
