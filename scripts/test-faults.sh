#!/usr/bin/env bash
# Runs the fault tests at length, in about half an hour. Under the address and under the thread
# sanitizer: every truncation of a short clip per container, and 1, 8 and 64 flipped bits of it,
# from the demuxer to the last sample; 10,000 decoders destroyed in five ways; the table of
# RTSP faults three times. Under valgrind: the tests of the demuxer, the filter, the decoder and the
# scaler, FFmpeg's own vector code included.
#
# usage: test-faults.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scripts/install-packages.sh test faults
mkdir -p build/faults

build() {
  configure_and_build "$@" >build/faults/build.log || die "the build failed; see build/faults/build.log"
}

# run NAME MINUTES COMMAND...: writes a log into build/faults/. A command that hangs has failed.
run() {
  local name=$1 minutes=$2 log=build/faults/$1.log begin=$SECONDS
  shift 2
  if ! timeout "${minutes}m" "$@" >"$log" 2>&1; then
    grep -E 'FAILED|ERROR|Failure|WARNING: Thread' "$log" | head -n 20 || true
    die "$name failed or took more than $minutes minutes; see $log"
  fi
  printf '%-40s %5d s  %s\n' "$name" $((SECONDS - begin)) \
    "$(grep -E 'tests passed|  PASSED  ' "$log" | tail -n 1)"
}

for preset in asan-ubsan tsan; do
  say "Preset $preset"
  build "$preset" damaged_files_test decoder_lifecycle_test rtsp_test
  samples/make-clips.sh build/clips
  tests=build/$preset/tests
  run "$preset-damaged-files" 30 env QXTOOLS_TEST_EFFORT=50 "$tests/damaged_files_test"
  run "$preset-decoder-lives" 30 env QXTOOLS_TEST_EFFORT=20 "$tests/decoder_lifecycle_test" \
    '--gtest_filter=Decoder.DiesInFiveWaysManyTimesEach'
  run "$preset-rtsp" 30 "$tests/rtsp_test" --gtest_repeat=3
done

say "valgrind"
memchecked=(annexb_filter_test damaged_files_test decoder_lifecycle_test decoder_test demuxer_test
  media_scale_test)
build dev "${memchecked[@]}"
for test in "${memchecked[@]}"; do
  run "valgrind-$test" 30 valgrind -q --error-exitcode=9 --leak-check=full \
    --errors-for-leak-kinds=definite "build/dev/tests/$test"
done

say "All fault tests passed"
