#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) in build-fuzz with clang, then runs each for a while.
#   bash scripts/fuzz.sh [seconds] [target...]      seconds per target (default 60), all targets
# Each target starts from a copy of its seed corpus fuzz/corpus/<target> in
# build-fuzz/corpus-work/<target>, where its new inputs stay for the next run (the checked-in
# corpus never grows; delete corpus-work to start over). Crash, timeout and out-of-memory inputs go
# to build-fuzz/artifacts/<target>/, the whole output to build-fuzz/logs/<target>.log.
# Exits non-zero when any target found something. Installs nothing.
#
# To reproduce one finding with the service's log lines shown:
#   build-fuzz/fuzz/<target> build-fuzz/artifacts/<target>/crash-...
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift $(($# > 0 ? 1 : 0))
if ! [[ $seconds =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
    echo "usage: scripts/fuzz.sh [seconds] [target...]" >&2
    exit 2
fi
all_targets=(fuzz_base64 fuzz_store_load fuzz_store_queries fuzz_json_text fuzz_dbus_message fuzz_adapter_shadow fuzz_shadow_cloud
             fuzz_cmctl_document)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")

# Longest input per target: room for the deepest seed (1200 levels of nesting) and no more, since
# longer inputs only slow the search down.
max_len_of() {
    case $1 in
        fuzz_base64) echo 4096 ;;
        fuzz_dbus_message) echo 8192 ;;
        *) echo 16384 ;;
    esac
}

build=build-fuzz
export CC=${FUZZ_CC:-clang} CXX=${FUZZ_CXX:-clang++}
if ! command -v "$CXX" > /dev/null; then
    echo "fuzz.sh: $CXX not found (Debian package clang)" >&2
    exit 2
fi
fuzzer_lib="$("$CXX" -print-resource-dir)/lib/linux/libclang_rt.fuzzer-x86_64.a"
if [ ! -f "$fuzzer_lib" ]; then
    echo "fuzz.sh: libFuzzer is missing ($fuzzer_lib); it comes with the Debian package libclang-rt-14-dev" >&2
    exit 2
fi

mkdir -p "$build"
echo "== fuzz build ($build) =="
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCM_BUILD_FUZZ=ON -DCM_BUILD_TESTS=OFF \
    -DCM_BUILD_BENCH=OFF > "$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
jobs=$(nproc)
[ "$jobs" -le 2 ] || jobs=2
cmake --build "$build" -j"$jobs" --target "${targets[@]}"

# The instrumented libraries are also built with -fno-sanitize-recover; these make a report stop
# the run whichever sanitizer makes it.
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"

status=0
summary=()
for target in "${targets[@]}"; do
    seeds=fuzz/corpus/$target
    work=$build/corpus-work/$target
    artifacts=$build/artifacts/$target
    log_dir=$build/logs
    log=$log_dir/$target.log
    mkdir -p "$work" "$artifacts" "$log_dir"
    [ -d "$seeds" ] && cp -u "$seeds"/* "$work"/ 2> /dev/null || true
    before=$(ls "$artifacts")
    echo "== $target: $seconds s =="
    # -close_fd_mask=2: the service logs every line to standard error; libFuzzer keeps its own
    # output and the sanitizers' reports on a copy of it, which goes to the log.
    rc=0
    "$build/fuzz/$target" "$work" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -max_len="$(max_len_of "$target")" -print_final_stats=1 -close_fd_mask=2 \
        -artifact_prefix="$artifacts/" > "$log" 2>&1 || rc=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    line=$(printf '%-20s %10s runs %8s exec/s' "$target" "${runs:-?}" "${rate:-?}")
    new=$(comm -13 <(echo "$before") <(ls "$artifacts") | grep -v '^slow-unit-' || true)
    if [ $rc -ne 0 ] || [ -n "$new" ]; then
        status=1
        line+="  FOUND (exit $rc)"
        echo "$target: libFuzzer exited with $rc; the report ($log):"
        grep -E '^==[0-9]+== ?ERROR|^SUMMARY|fuzz invariant broken|ALARM:|Test unit written' "$log" | head -8 |
            sed 's/^/    /'
        # The first frames of the service's own code, past libFuzzer, the sanitizers and abort.
        grep -E '^ +#[0-9]+ ' "$log" |
            grep -vE 'fuzzer::|__sanitizer|__interceptor|libc\.so|nptl/|signal/|stdlib/|libstdc\+\+|Fuzz::fail|escaped_exception|operator new|malloc' |
            head -8 | sed -E 's/ \(BuildId: [0-9a-f]+\)//; s/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> ?>/std::string/g; s/^ +/      /' |
            cut -c1-200
        # The input libFuzzer names (an artifact kept from an earlier run has the same name) and
        # any other artifact this run left.
        inputs=$( (sed -n 's/.*Test unit written to //p' "$log"; for f in $new; do echo "$artifacts/$f"; done) | sort -u)
        for f in $inputs; do echo "    input: $f"; done
    fi
    echo "$line"
    summary+=("$line")
done

echo "== fuzz summary ($seconds s per target) =="
printf '%s\n' "${summary[@]}"
exit $status
