#!/usr/bin/env bash
# Builds the benchmarks (optimised) and runs them all, or only those named: bench.sh cache_bench
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQM_BUILD_BENCH=ON >/dev/null
cmake --build build-bench -j2
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for f in bench/*_bench.cpp; do [ -e "$f" ] && names+=("$(basename "$f" .cpp)"); done
fi
for name in "${names[@]}"; do
  echo "== $name"
  "./build-bench/bench/$name"
done
