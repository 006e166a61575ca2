#!/usr/bin/env bash
# Installs what is needed, builds with AddressSanitizer + UndefinedBehaviorSanitizer and
# warnings as errors, and runs the whole test suite.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
bash scripts/setup.sh
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQM_SANITIZE=ON -DQM_WERROR=ON
cmake --build build-asan -j2
ctest --test-dir build-asan -j2 --output-on-failure --timeout 600
