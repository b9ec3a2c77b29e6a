#!/usr/bin/env bash
# Mutation testing: how many deliberate faults the tests find.
#
#   scripts/mutate.sh [-j N] [-t SECONDS] [-m NAME_REGEX] [-l mutants.txt]
#
# Copies the working tree (without build/ and .git) to a scratch directory,
# builds it once (default preset settings, no benchmarks), then for each
# mutant of scripts/mutants.txt: puts its replacement in place of its text,
# rebuilds incrementally, runs CTest (stops at the first failure, time-out
# per run), and puts the file back. A mutant is
#   killed    a test failed, crashed or timed out
#   survived  every test passed: a test is missing
#   invalid   the mutant did not build (its line needs another replacement)
#   stale     its text is no longer in the file (its line needs updating)
# Prints one line a mutant and the score killed / (killed + survived).
# Not part of CI: it takes about a minute a mutant on two cores.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
list="$root/scripts/mutants.txt"
jobs=2
limit=600
only=""
while getopts "j:t:m:l:" opt; do
  case "$opt" in
    j) jobs="$OPTARG" ;;
    t) limit="$OPTARG" ;;
    m) only="$OPTARG" ;;
    l) list="$(cd "$(dirname "$OPTARG")" && pwd)/$(basename "$OPTARG")" ;;
    *) sed -n '2,17p' "$0"; exit 2 ;;
  esac
done

scratch="${ETHBRG_MUTATE_DIR:-/tmp/ethbrg-mutate-$(id -u)}"
src="$scratch/src"
# The build directory sits where a preset's would, so that paths in the
# build (and so __FILE__ in assertion messages) look as they do there.
build="$src/build/default"
mkdir -p "$src" "$build"
find "$src" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
# Copied with new modification times (-m): objects an earlier run built from
# other texts are never taken for current; ccache keeps the rebuild cheap.
tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$src" -m -xf -

export CMAKE_CXX_COMPILER_LAUNCHER="${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}"
export CMAKE_C_COMPILER_LAUNCHER="${CMAKE_C_COMPILER_LAUNCHER:-ccache}"
export CCACHE_BASEDIR="$src"
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=gcc \
      -DCMAKE_CXX_COMPILER=g++ -DETHBRG_WERROR=ON -DETHBRG_BENCH=OFF >/dev/null
echo "building the unmutated tree in $build"
cmake --build "$build" -j "$jobs" >"$scratch/build.log" 2>&1 || { tail -30 "$scratch/build.log"; exit 1; }
if ! timeout -k 10 "$limit" ctest --test-dir "$build" -j "$jobs" -LE usbvm --output-on-failure >"$scratch/baseline.log" 2>&1; then
  echo "the unmutated tree fails its tests:"; tail -30 "$scratch/baseline.log"; exit 1
fi

# apply FILE TEXT REPLACEMENT: replaces the first occurrence; exit 3 if absent.
apply() {
  python3 - "$@" <<'PY'
import sys
path, old, new = sys.argv[1:4]
unescape = lambda s: s.replace("\\n", "\n").replace("\\t", "\t").replace("\\\\", "\\")
old, new = unescape(old), unescape(new)
text = open(path).read()
if old not in text:
    sys.exit(3)
open(path, "w").write(text.replace(old, new, 1))
PY
}

killed=0 survived=0 invalid=0 stale=0
survivors=()
while IFS=$'\t' read -r name file text repl rule; do
  case "$name" in ''|'#'*) continue ;; esac
  [ -n "$only" ] && ! [[ "$name" =~ $only ]] && continue
  start=$SECONDS
  cp -p "$src/$file" "$scratch/original"
  if ! apply "$src/$file" "$text" "$repl"; then
    result=stale; stale=$((stale + 1))
  elif ! cmake --build "$build" -j "$jobs" >"$scratch/mutant-build.log" 2>&1; then
    result=invalid; invalid=$((invalid + 1))
  elif timeout -k 10 "$limit" ctest --test-dir "$build" -j "$jobs" -LE usbvm --stop-on-failure \
         >"$scratch/mutant-test.log" 2>&1; then
    result=survived; survived=$((survived + 1)); survivors+=("$name")
  else
    result=killed; killed=$((killed + 1))
    by=$(grep -m1 -oE '[0-9]+/[0-9]+ Test +#[0-9]+: [^ ]+ [.*]+(\*\*\*)?[A-Za-z]+' "$scratch/mutant-test.log" |
         grep -vE 'Passed' | awk '{print $4}' || true)
    [ -n "$by" ] && result="killed by $by"
  fi
  # Back with a new modification time, so the next build recompiles it.
  cp "$scratch/original" "$src/$file"
  touch "$src/$file"
  printf '%-9s %-28s %4ss  %s: %s\n' "${result%% *}" "$name" "$((SECONDS - start))" "$file" "$rule"
  [ "${result#killed by }" != "$result" ] && printf '          %s\n' "$result"
done <"$list"
cmake --build "$build" -j "$jobs" >/dev/null 2>&1 || true

total=$((killed + survived))
score=$(awk -v k="$killed" -v t="$total" 'BEGIN { printf "%.1f", t ? 100 * k / t : 0 }')
echo "mutants: ${killed} killed, ${survived} survived, ${invalid} invalid, ${stale} stale; score ${killed}/${total} = ${score} %"
[ "${#survivors[@]}" -gt 0 ] && echo "survivors: ${survivors[*]}"
exit 0
