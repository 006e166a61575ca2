#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for SECONDS (default 120):
#   fuzz.sh [SECONDS] [target ...]
# Corpora grow in fuzz/corpus/<target>/ (git-ignored); crashes land in build-fuzz/crashes/.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
seconds=${1:-120}
shift || true
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQM_BUILD_FUZZ=ON \
  -DQM_BUILD_TESTS=OFF >/dev/null
cmake --build build-fuzz -j2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in fuzz/*_fuzz.cpp; do [ -e "$f" ] && targets+=("$(basename "$f" .cpp)"); done
fi
mkdir -p build-fuzz/crashes
for t in "${targets[@]}"; do
  mkdir -p "fuzz/corpus/$t"
  seeds=()
  [ -d "fuzz/seeds/$t" ] && seeds=("fuzz/seeds/$t")
  echo "== $t for ${seconds}s"
  "./build-fuzz/fuzz/$t" -max_total_time="$seconds" -artifact_prefix=build-fuzz/crashes/ \
    "fuzz/corpus/$t" "${seeds[@]}"
done
