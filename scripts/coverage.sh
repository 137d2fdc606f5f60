#!/usr/bin/env bash
# Measures which lines and branches of the library the C++ tests reach, in the baseline build of the
# kernels: prints a table and leaves one page per file in build/coverage/report.
#
# Branches that only an exception takes are left out: every call that may throw has one. Each
# instantiation of a template counts on its own when lines are merged.
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
source scripts/python.sh

build=build/coverage
install_what_is_missing missing_packages
make_python_environment build/python-environment
fetch_python_packages 'gcovr>=8'

run cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PROJECT_pblinalg_INCLUDE="$PWD/cmake/coverage.cmake" \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
    -DPBLINALG_BUILD_BENCHMARKS=OFF -DPBLINALG_BUILD_EXAMPLES=OFF
find $build -name '*.gcda' -delete
run cmake --build $build
# Counters are no part of consumers or of optimised kernels.
run ctest --test-dir $build --exclude-regex '^(consumer|object_code)' --output-on-failure --parallel "$(nproc)"

say "Coverage"
mkdir -p $build/report
run build/python-environment/bin/gcovr --root . --filter src/ \
    --exclude-throw-branches --exclude-unreachable-branches --merge-mode-functions=merge-use-line-0 \
    --gcov-ignore-parse-errors=negative_hits.warn \
    --txt $build/report/lines.txt --txt-metric line \
    --html-details $build/report/index.html --json-summary $build/report/summary.json \
    --print-summary \
    $build/src/CMakeFiles/pblinalg_core.dir $build/src/CMakeFiles/pblinalg_*_baseline.dir
cat $build/report/lines.txt
