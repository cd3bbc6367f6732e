#!/usr/bin/env bash
# Installs what is missing, builds config-manager, the development keychain service and the
# benchmarks with optimisation in build-bench, and runs them: cm-bench (the service against the
# bus's own limit; arguments are passed to it: --out FILE, --quick, --keep; its figures go to
# bench-results.json by default), then mqtt-bridge-bench (the bridge's latency and throughput) and
# gateway-bench (a desired value from the cloud to the store through the whole loop).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

dir=build-bench
mkdir -p "$dir"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCM_BUILD_BENCH=ON -DCM_BUILD_TESTS=ON \
    -DCM_SANITIZE_ADDRESS=OFF -DCM_SANITIZE_THREAD=OFF > "$dir/configure.log" 2>&1 ||
    { cat "$dir/configure.log"; exit 1; }
cmake --build "$dir" -j"$(nproc)" --target config-manager keychain-devd cm-bench mqtt-bridge-bench gateway-bench
status=0
"$dir/bench/cm-bench" "$@" || status=$?
echo "== mqtt-bridge-bench =="
"$dir/tools/mqtt-bridge-devd/mqtt-bridge-bench" || status=$?
echo "== gateway-bench =="
"$dir/test/e2e/gateway-bench" || status=$?
exit $status
