#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset: clang, ASan + UBSan) and runs
# each for a while on a copy of its corpus. Fails when any target crashes,
# times out on one input, runs out of memory, or does not start.
#
#   scripts/fuzz.sh [seconds] [target...]
#     seconds   run time per target (default 60)
#     target    names as in fuzz/<name>_fuzz.cpp (default: all)
#   FUZZ_BUILD_DIR  build directory (default: the preset's, build/fuzz)
#
# The checked-in corpus is not changed: new inputs go to a scratch copy.
# Crash, timeout and OOM inputs are kept in <build>/fuzz-artifacts/<target>/;
# to keep one as a regression seed, copy it to fuzz/corpus/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
shift || true
build="${FUZZ_BUILD_DIR:-build/fuzz}"

if [ "$#" -gt 0 ]; then
    targets=("$@")
else
    targets=()
    for src in fuzz/*_fuzz.cpp; do
        name="$(basename "$src" _fuzz.cpp)"
        targets+=("$name")
    done
fi
if [ "${#targets[@]}" -eq 0 ]; then
    echo "fuzz: no targets" >&2
    exit 1
fi

jobs="$(nproc 2>/dev/null || echo 2)"
cmake --preset fuzz -B "$build" >/dev/null
build_targets=()
for name in "${targets[@]}"; do
    build_targets+=("${name}_fuzz")
done
cmake --build "$build" -j "$jobs" --target "${build_targets[@]}"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

failed=()
for name in "${targets[@]}"; do
    exe="$build/fuzz/${name}_fuzz"
    corpus="fuzz/corpus/$name"
    src="fuzz/${name}_fuzz.cpp"
    if [ ! -x "$exe" ] || [ ! -d "$corpus" ]; then
        echo "fuzz: $name: missing executable or corpus" >&2
        failed+=("$name")
        continue
    fi
    # The target's own input cap (kMaxInputSize in its source) is the -max_len.
    max_len="$(sed -n 's/.*kMaxInputSize = \([0-9][0-9]*\).*/\1/p' "$src" | head -n 1)"
    max_len="${max_len:-4096}"

    work="$scratch/$name"
    artifacts="$build/fuzz-artifacts/$name"
    mkdir -p "$work" "$artifacts"
    cp -r "$corpus/." "$work/"

    echo "== fuzz $name: ${seconds} s, -max_len=$max_len"
    status=0
    "$exe" "$work" \
        -max_total_time="$seconds" \
        -timeout=10 \
        -rss_limit_mb=2048 \
        -max_len="$max_len" \
        -print_final_stats=1 \
        -artifact_prefix="$artifacts/" \
        >"$scratch/$name.log" 2>&1 || status=$?
    grep -E '^(stat::number_of_executed_units|stat::new_units_added|Done [0-9]+ runs)' "$scratch/$name.log" || true
    if [ "$status" -ne 0 ]; then
        echo "fuzz: $name FAILED (exit $status); log tail:" >&2
        tail -n 60 "$scratch/$name.log" >&2
        echo "fuzz: artifacts in $artifacts" >&2
        failed+=("$name")
    fi
done

if [ "${#failed[@]}" -ne 0 ]; then
    echo "fuzz: failed: ${failed[*]}" >&2
    exit 1
fi
echo "fuzz: all ${#targets[@]} targets passed"
