#!/usr/bin/env bash
# Runs bench/soak.cc against the test clips and RTSP peers of the loopback interface: a camera that
# plays, and some that close, fall silent, trickle or send garbage. Prints every minute what the process
# holds, and fails if something grows after the warm-up. Ctrl-C ends it early.
#
# usage: soak.sh [MINUTES]      (30)
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

minutes=${1:-30}
[[ $minutes =~ ^[1-9][0-9]*$ ]] || die "'$minutes' is not a valid number of minutes; usage: soak.sh [MINUTES]"
scripts/install-packages.sh test
configure_and_build dev soak
samples/make-clips.sh build/clips

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The peers end when the other end of their standard input is closed.
mkfifo "$work/alive"
exec 9<>"$work/alive"
faults=(: describe:close play:close stream:silent stream:trickle stream:garbage)
urls=()
for i in "${!faults[@]}"; do
  tests/testing/rtsp_camera.py build/clips/left.h264 --fault "${faults[i]}" \
    <"$work/alive" >"$work/port$i" 2>/dev/null 9>&- &
done
for i in "${!faults[@]}"; do
  for _ in {1..100}; do
    [ ! -s "$work/port$i" ] || break
    sleep 0.1
  done
  if [ -s "$work/port$i" ]; then
    urls+=("rtsp://127.0.0.1:$(<"$work/port$i")/cam")
  else
    echo "SKIPPED: the peer with fault '${faults[i]}' did not start"
  fi
done
build/dev/bench/soak "$minutes" build/clips "${urls[@]}" 9>&- &
soak=$!
trap 'kill -TERM $soak' INT TERM  # it then stops and reports
wait $soak || wait $soak          # the signal interrupts the first one
