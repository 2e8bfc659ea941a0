#!/usr/bin/env bash
# Builds (if needed) and runs the whole test suite through CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/CMakeCache.txt ] || cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)"
./scripts/python_tools.sh
(cd build && ctest --output-on-failure -j"$(nproc)")
# The Python package, built without the CUDA backend to keep the stage short.
./scripts/python_package.sh -Ccmake.define.TESSALINE_WITH_CUDA=OFF
cd build
../scripts/fuzz.sh --seconds 45  # then every reader fuzzed a short while
