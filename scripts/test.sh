#!/usr/bin/env bash
# Installs what is missing, builds, checks format and lint, and runs all tests: as they are, under
# the address and undefined-behaviour sanitizers and under the thread sanitizer.
#
# usage: test.sh [--quick]
#   --quick   one build without sanitizers, and its tests
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

quick=
case ${1-} in
  '') ;;
  --quick) quick=1 ;;
  *) die "unknown argument '$1'; usage: test.sh [--quick]" ;;
esac

# run_tests PRESET [CTEST ARGUMENT...]
run_tests() {
  local preset=$1
  shift
  ctest --test-dir "build/$preset" --output-on-failure -j "$(nproc)" "$@" >"build/$preset/tests.log" ||
    { grep -vE ' Start |Passed ' "build/$preset/tests.log" && die "tests failed in build/$preset"; }
  grep -E 'tests passed|Total Test time|Skipped' "build/$preset/tests.log"
}

scripts/install-packages.sh test

say "Build and test"
configure_and_build dev
run_tests dev
[ -z "$quick" ] || exit 0

say "Format and lint"
scripts/lint.sh

say "Address and undefined-behaviour sanitizers"
configure_and_build asan-ubsan
run_tests asan-ubsan

say "Thread sanitizer"
configure_and_build tsan
run_tests tsan

say "All checks passed"
