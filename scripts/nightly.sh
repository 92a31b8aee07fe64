#!/usr/bin/env bash
# Runs the checks that take too long for scripts/test.sh, one after the other, for a job that starts
# every night. A check that fails does not stop the next one. Logs are in build/nightly/. Needs root or
# sudo; without root, the FFmpeg 4 and package checks fail.
#
# usage: nightly.sh [CHECK...]      (all; known are the words in front of the commands below)
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

checks=(
  'test        scripts/test.sh'
  'coverage    scripts/coverage.sh'
  'mutations   scripts/check_mutations.py'
  'faults      scripts/test-faults.sh'
  'cameras     scripts/test-cameras.sh'
  'aarch64     scripts/test-aarch64.sh'
  'ffmpeg4     scripts/test-ffmpeg4.sh'
  'packages    packaging/build-packages.sh && packaging/test-packages.sh'
  'depth       scripts/measure-depth.sh'
  'soak        scripts/soak.sh 60'
  'fuzz        scripts/fuzz.sh 600'
)
mkdir -p build/nightly
failed=()
known=" ${checks[*]%% *} "
for name in "$@"; do [[ $known == *" $name "* ]] || die "unknown check '$name'; known are:$known"; done
for check in "${checks[@]}"; do
  read -r name command <<<"$check"
  [[ $# -eq 0 || " $* " == *" $name "* ]] || continue
  begin=$SECONDS verdict=passed
  bash -c "$command" >"build/nightly/$name.log" 2>&1 </dev/null || { verdict=FAILED && failed+=("$name"); }
  printf '%-10s %s after %d s\n' "$name" $verdict $((SECONDS - begin))
done
[ ${#failed[@]} -eq 0 ] || die "failed: ${failed[*]}; the logs are in build/nightly/"
