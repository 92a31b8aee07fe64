#!/usr/bin/env bash
# Runs every fuzz target for a while, under the address and undefined-behaviour sanitizers, and
# reports executions, seconds and what they covered. New inputs are kept in build/fuzz-corpus.
#
# usage: fuzz.sh [SECONDS] [TARGET...]      (300 seconds each, all targets)
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds=${1:-300}
shift || true
targets=("$@")
scripts/install-packages.sh test
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets < <(sed -n 's/^qxtools_add_fuzzer(\([a-z0-9_]*\).*/\1/p' fuzz/CMakeLists.txt)
fi
[ ${#targets[@]} -gt 0 ] || die "no fuzz targets found"
configure_and_build asan-ubsan "${targets[@]}"

fuzz() {
  local target=$1 kept=build/fuzz-corpus/$1 log=build/fuzz-corpus/$1.log
  mkdir -p "$kept"
  if ! "build/asan-ubsan/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 -verbosity=1 \
    -artifact_prefix="build/fuzz-corpus/$target-" "$kept" "fuzz/corpus/$target" >"$log" 2>&1; then
    tail -n 30 "$log"
    printf '%-28s FOUND A FAULT; the input is in build/fuzz-corpus/%s-*\n' "$target" "$target"
    return 1
  fi
  stat() { sed -n "s/^stat::$1: *//p" "$log"; }
  printf '%-20s %12s executions %6s s %6s new inputs  %s\n' "$target" \
    "$(stat number_of_executed_units)" "$seconds" "$(stat new_units_added)" \
    "$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1)"
}
export -f fuzz
export seconds
printf '%s\0' "${targets[@]}" | xargs -0 -P "$(nproc)" -I{} bash -c 'fuzz {}' || die "a target found a fault"
