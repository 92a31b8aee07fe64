#!/usr/bin/env bash
# Installs what is missing, builds, checks format and lint, and runs all tests: plain, under the
# address and undefined-behaviour sanitizers, and under the thread sanitizer. Runs the tests of vector
# code again without it, and the kernels as 64-bit Arm programs under emulation.
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

# run_tests PRESET LOG [CTEST ARGUMENT...]
run_tests() {
  local preset=$1 log=build/$1/$2.log
  shift 2
  ctest --test-dir "build/$preset" --output-on-failure -j "$(nproc)" "$@" >"$log" ||
    { grep -vE ' Start |Passed ' "$log" && die "tests failed in build/$preset"; }
  grep -E 'tests passed|Total Test time|Skipped' "$log"
}

# run_all_tests PRESET: with the best instruction sets, then the tests of vector code without it.
run_all_tests() {
  run_tests "$1" tests
  echo "without vector code:"
  QXTOOLS_FORCE_ISA=scalar run_tests "$1" scalar -R "$vectorised"
}
vectorised='Argb|CostVolume|FaultSweep|ImageCopy|Stereo'

scripts/install-packages.sh test

say "Build and test"
configure_and_build dev
run_all_tests dev
[ -z "$quick" ] || exit 0

say "Format and lint"
scripts/lint.sh

say "Address and undefined-behaviour sanitizers"
configure_and_build asan-ubsan
run_all_tests asan-ubsan

say "Thread sanitizer"
configure_and_build tsan
run_all_tests tsan

say "Kernels as 64-bit Arm programs"
scripts/test-aarch64.sh --fast

say "All checks passed"
