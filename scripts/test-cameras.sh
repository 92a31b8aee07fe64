#!/usr/bin/env bash
# Reads cameras of the loopback interface and compares every picture with the file that they send,
# next to a bare loop over FFmpeg. The cameras: GStreamer's RTSP server, the npm package
# rtsp-streaming-server (installed below build/cameras), VLC, and the project's own at a chosen pace:
# pauses, slow links, limits, cancels, servers that are killed and started again. About two minutes.
#
# usage: test-cameras.sh [WORD...]              only cases whose line contains all the words
#        test-cameras.sh --endure MINUTES       two cameras, killed every five minutes; prints what
#                                               the process holds every minute
#        test-cameras.sh --gate READER CLIPS    the part that is a test: nothing is installed or built
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

run() { bench/cameras/run.py --clips "$clips" --work build/cameras --reader "$reader" "$@"; }

if [ "${1-}" = --gate ]; then
  [ $# -eq 3 ] || die "usage: test-cameras.sh --gate READER CLIPS"
  reader=$2 clips=$3
  run --gate
  exit
fi

scripts/install-packages.sh test cameras
configure_and_build dev camera_reader
clips=build/clips reader=build/dev/bench/cameras/camera_reader
samples/make-clips.sh "$clips"
if [ "${1-}" = --endure ]; then
  [[ ${2-} =~ ^[1-9][0-9]*$ ]] || die "--endure needs a positive number of minutes"
  run --endure "$2"
  exit
fi
node_package=rtsp-streaming-server
if [ ! -d "build/cameras/npm/node_modules/$node_package" ]; then
  mkdir -p build/cameras/npm
  npm install --prefix build/cameras/npm --no-audit --no-fund "$node_package@2.1.0" >build/cameras/npm.log 2>&1 ||
    echo "SKIPPED: $node_package is not installed; build/cameras/npm.log says why"
fi
run --only "$*"
