#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite twice: a plain build and an
# AddressSanitizer + UndefinedBehaviorSanitizer build. Then the threaded base layers (threads,
# locks, timers, the bus handle) run once more under ThreadSanitizer, built with clang so that the
# lock annotations are checked by -Wthread-safety as well. --no-tsan skips that last run. Last, every
# libFuzzer target runs for a few seconds from its seed corpus, so that a known bad input fails here.
set -euo pipefail
cd "$(dirname "$0")/.."

tsan=1
[ "${1:-}" = "--no-tsan" ] && tsan=0

bash scripts/install-deps.sh

jobs=$(nproc)
# Most tests wait on a private bus rather than compute, so a little more parallelism than cores pays.
test_jobs=$((jobs + 1))

# run_variant NAME LABELS TARGETS [cmake options...]: LABELS and TARGETS empty mean everything.
run_variant() {
    local name=$1 labels=$2 targets=$3
    shift 3
    local dir="build-test-$name"
    echo "== $name build =="
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > "$dir.configure.log" 2>&1 ||
        { cat "$dir.configure.log"; return 1; }
    # shellcheck disable=SC2086
    cmake --build "$dir" -j"$jobs" ${targets:+--target $targets}
    echo "== $name tests =="
    ctest --test-dir "$dir" -j"$test_jobs" --output-on-failure ${labels:+-L "$labels"}
}

export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

run_variant plain "" ""
# The Debian packages from the plain build: built, installed with dpkg, run, purged. dpkg needs root.
if [ "$(id -u)" -eq 0 ]; then
    echo "== package test =="
    bash packaging/test/package_test.sh build-test-plain
else
    echo "== package test skipped: dpkg -i needs root =="
fi
run_variant asan "" "" -DCM_SANITIZE_ADDRESS=ON
if [ $tsan -eq 1 ]; then
    threaded_tests=$(ls base/platform/test/*_test.cpp base/dbus/test/*_test.cpp common/log/test/*_test.cpp |
        xargs -n1 basename | sed 's/\.cpp$//' | tr '\n' ' ')
    CC=clang CXX=clang++ run_variant tsan "platform|bus" "$threaded_tests" -DCM_SANITIZE_THREAD=ON
fi

echo "== fuzz targets =="
bash scripts/fuzz.sh 4
