#!/usr/bin/env bash
# Runs all tests in a build with counters, and prints how many lines of the library and branches of the
# parsers they cover, per file and in total. Fails below the limits in coverage_report.py. Leaves out
# kernels of instruction sets that this processor does not have.
#
# usage: coverage.sh [FILE...]
#   FILE   also lists this file's lines that no test reaches
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scripts/install-packages.sh test
build=$project/build/coverage
# Child processes write profiles too; those of one program are merged as they end.
export LLVM_PROFILE_FILE=$build/profiles/%4m.profraw
configure_and_build coverage
rm -rf "$build/profiles"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" >"$build/tests.log" ||
  { grep -vE ' Start |Passed ' "$build/tests.log" && die "tests failed in $build"; }
grep -E 'tests passed|Total Test time' "$build/tests.log"
"llvm-profdata-$llvm" merge -sparse "$build"/profiles/*.profraw -o "$build/tests.profdata" ||
  die "the tests wrote no profiles"

# The shared library contains every function. Counts from the tests' static library are added to its
# own, since both consist of the same objects.
ignored=()
while IFS=: read -r isa state; do
  [[ $state == *supported* ]] || ignored+=("-ignore-filename-regex=_$isa\.cc$")
done < <("$build/tools/qxtools" isa)
cov() {
  local verb=$1
  shift
  "llvm-cov-$llvm" "$verb" "$build/libqxtools.so" -instr-profile="$build/tests.profdata" "${ignored[@]}" "$@"
}

cov export -summary-only >"$build/coverage.json"
for file in "$@"; do
  say "Lines not reached in $file"
  cov show | awk -v name="$file:" '/^[^ ].*:$/ {here = index($0, name) > 0} here && /^ +[0-9]+\| +0\|/'
done
scripts/coverage_report.py "$project" "$build/coverage.json" || die "below the limits"
