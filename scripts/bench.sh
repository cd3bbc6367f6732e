#!/usr/bin/env bash
# Installs what is missing (dconf-service and libdconf-dev too, for the benchmark's peer), builds
# config-manager, the development keychain service and the benchmarks with optimisation in
# build-bench, and runs them: cm-bench (the service against the bus's own limit, and dconf's write
# and read beside set_config and get_config; arguments are passed to it: --out FILE, --quick,
# --keep, --peer none to leave dconf out; its figures go to bench-results.json by default), then
# mqtt-bridge-bench (the bridge's latency and throughput) and gateway-bench (a desired value from
# the cloud to the store through the whole loop).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

# dconf, the peer cm-bench measures config-manager against: its service, and its client library
# when cm-bench is built. Only the benchmark needs them; without them cm-bench says what is
# missing and measures the rest.
dconf_missing=()
[ -x /usr/libexec/dconf-service ] || dconf_missing+=(dconf-service)
pkg-config --exists dconf 2>/dev/null || dconf_missing+=(libdconf-dev)
if [ ${#dconf_missing[@]} -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    export DEBIAN_FRONTEND=noninteractive
    { $SUDO apt-get update && $SUDO apt-get install -y --no-install-recommends "${dconf_missing[@]}"; } ||
        echo "bench.sh: could not install ${dconf_missing[*]}; cm-bench runs without dconf" >&2
fi

dir=build-bench
mkdir -p "$dir"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCM_BUILD_BENCH=ON -DCM_BUILD_TESTS=ON \
    -DCM_SANITIZE_ADDRESS=OFF -DCM_SANITIZE_THREAD=OFF > "$dir/configure.log" 2>&1 ||
    { cat "$dir/configure.log"; exit 1; }
cmake --build "$dir" -j"$(nproc)" --target config-manager keychain-devd cm-bench mqtt-bridge-bench gateway-bench
status=0
"$dir/bench/cm-bench" --peer dconf "$@" || status=$?
echo "== mqtt-bridge-bench =="
"$dir/tools/mqtt-bridge-devd/mqtt-bridge-bench" || status=$?
echo "== gateway-bench =="
"$dir/test/e2e/gateway-bench" || status=$?
exit $status
