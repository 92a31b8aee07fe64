#!/usr/bin/env bash
# Builds for 64-bit Arm and runs the tests under user-mode emulation: as the board's processor
# (Cortex-A53, no dot product) and as one that has dot products; the NEON kernels once more under
# the address and undefined-behaviour sanitizers; and a build against FFmpeg 4, whose binaries must
# start on the boards' C library. docs/boards.md says what this shows and what it cannot show.
#
# usage: test-aarch64.sh [--fast]
#   --fast   only frames, copies, parsers and kernels on the board's processor, and the kernels on the
#            other one
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

fast=
case ${1-} in
  '') ;;
  --fast) fast=1 ;;
  *) die "unknown argument '$1'; usage: test-aarch64.sh [--fast]" ;;
esac

newest_glibc=2.31  # of the boards' system

# tests FOLDER CPU [CTEST ARGUMENT...]
tests() {
  local folder=$1 cpu=$2
  shift 2
  say "Tests in $folder as $cpu"
  QXTOOLS_EMULATED_CPU=$cpu ctest --test-dir "$folder" --output-on-failure -j "$(nproc)" "$@" >"$folder/$cpu.log" ||
    { grep -vE ' Start |Passed ' "$folder/$cpu.log" && die "tests failed in $folder as $cpu"; }
  grep -E 'tests passed|Total Test time|Skipped' "$folder/$cpu.log"
}

# needs_only_old_glibc FILE...
needs_only_old_glibc() {
  local file needed newest
  for file in "$@"; do
    needed=$("llvm-readelf-$llvm" --version-info "$file" | grep -oE 'GLIBC_[0-9.]+' | sort -uV)
    [ -n "$needed" ] || die "$file uses no versioned symbol of the C library: is it a program?"
    newest=$(printf '%s\n' "$needed" "GLIBC_$newest_glibc" | sort -V | tail -n 1)
    [ "$newest" = "GLIBC_$newest_glibc" ] || die "$file needs $newest; the boards have $newest_glibc"
    echo "$(basename "$file"): nothing newer than $(tail -n 1 <<<"$needed")"
  done
}

scripts/install-packages.sh test roots
status=0
scripts/setup-aarch64.sh || status=$?
if [ $status -eq 77 ]; then
  echo "SKIPPED: nothing can be built without that root"
  exit 0
fi
[ $status -eq 0 ] || die "cannot create the root"
if [ -n "$fast" ]; then
  programs=(argb_test bit_reader_test cost_volume_kernels_test image_copy_test image_frame_test
    memory_buffer_test parameter_parser_test semi_global_test start_code_test stereo_rectifier_test)
  say "Build for 64-bit Arm"
  configure_and_build aarch64 "${programs[@]}"
  for program in "${programs[@]}"; do
    echo "$program:" && scripts/run-aarch64.sh build/roots/aarch64 "build/aarch64/tests/$program" --gtest_brief=1
  done
  echo "cost_volume_kernels_test with dot products:"
  QXTOOLS_EMULATED_CPU=max scripts/run-aarch64.sh build/roots/aarch64 \
    build/aarch64/tests/cost_volume_kernels_test --gtest_brief=1
  exit 0
fi

say "Build for 64-bit Arm"
configure_and_build aarch64
tests build/aarch64 cortex-a53
tests build/aarch64 max

say "NEON kernels under the address and undefined-behaviour sanitizers"
folder=build/aarch64-sanitized
kernel_tests=(argb_test cost_volume_kernels_test cost_volume_test image_copy_test semi_global_test
  start_code_test stereo_rectifier_test)
cmake -S . -B $folder -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQXTOOLS_AARCH64_COMPILER=gcc \
  -DCMAKE_TOOLCHAIN_FILE="$project/cmake/toolchain-aarch64.cmake" -DQXTOOLS_SANITIZE=address,undefined \
  -DCMAKE_EXE_LINKER_FLAGS="-static-libasan -static-libubsan" >/dev/null
export ASAN_OPTIONS=detect_leaks=0  # the leak checker cannot run under emulation
cmake --build $folder --target "${kernel_tests[@]}"
for cpu in cortex-a53 max; do
  for program in "${kernel_tests[@]}"; do
    echo "$program as $cpu:"
    QXTOOLS_EMULATED_CPU=$cpu scripts/run-aarch64.sh build/roots/aarch64 $folder/tests/"$program" --gtest_brief=1
  done
done

say "Build for 64-bit Arm against FFmpeg 4"
root=$project/build/roots/aarch64-bullseye
status=0
scripts/setup-aarch64.sh bullseye "$root" || status=$?
if [ $status -eq 77 ]; then
  echo "SKIPPED: this build needs that root"
  exit 0
fi
[ $status -eq 0 ] || die "cannot create the FFmpeg 4 root"
folder=build/aarch64-ffmpeg4
cmake --preset aarch64 -B $folder -DQXTOOLS_AARCH64_ROOT="$root" >/dev/null
cmake --build $folder
needs_only_old_glibc $folder/libqxtools.so $folder/tools/qxtools
tests $folder cortex-a53
