#!/usr/bin/env bash
# Installs what is missing, builds config-manager, the development keychain service and the
# benchmark with optimisation in build-bench, and runs the benchmark. Arguments are passed to
# cm-bench (--out FILE, --quick, --keep); the figures go to bench-results.json by default.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

dir=build-bench
mkdir -p "$dir"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCM_BUILD_BENCH=ON -DCM_BUILD_TESTS=ON \
    -DCM_SANITIZE_ADDRESS=OFF -DCM_SANITIZE_THREAD=OFF > "$dir/configure.log" 2>&1 ||
    { cat "$dir/configure.log"; exit 1; }
cmake --build "$dir" -j"$(nproc)" --target config-manager keychain-devd cm-bench
"$dir/bench/cm-bench" "$@"
