#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite twice: a plain build and an
# AddressSanitizer + UndefinedBehaviorSanitizer build. With --tsan it adds a ThreadSanitizer run of
# the threaded tests (bus handle, timers, threads).
set -euo pipefail
cd "$(dirname "$0")/.."

tsan=0
[ "${1:-}" = "--tsan" ] && tsan=1

bash scripts/install-deps.sh

jobs=$(nproc)
# Most tests wait on a private bus rather than compute, so a little more parallelism than cores pays.
test_jobs=$((jobs + 1))

run_variant() {
    local name=$1 regex=$2
    shift 2
    local dir="build-test-$name"
    echo "== $name build =="
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCM_BUILD_BENCH=OFF "$@" > "$dir.configure.log" 2>&1 ||
        { cat "$dir.configure.log"; return 1; }
    cmake --build "$dir" -j"$jobs"
    echo "== $name tests =="
    ctest --test-dir "$dir" -j"$test_jobs" --output-on-failure ${regex:+-R "$regex"}
}

export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

run_variant plain ""
run_variant asan "" -DCM_SANITIZE_ADDRESS=ON
if [ $tsan -eq 1 ]; then
    CC=clang CXX=clang++ run_variant tsan "Thread|Timer|Handle|Semaphore" -DCM_SANITIZE_THREAD=ON
fi
