#!/usr/bin/env bash
# Installs what is missing, builds the command, and turns the shipped stereo pair into disparity
# pictures: once as a clip of two H.264 streams, once as a still pair with ground truth.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scripts/install-packages.sh demo

say "Build"
configure_and_build release
qxtools=$project/build/release/tools/qxtools
out=$project/build/demo

say "Two camera streams"
samples/make-clips.sh build/clips
"$qxtools" probe build/clips/left.h264
rm -rf "$out"
"$qxtools" stereo build/clips/left.h264 build/clips/right.h264 -o "$out/clip" --disparities 112

say "A still pair, compared with its ground truth"
"$qxtools" stereo samples/aloe/left.jpg samples/aloe/right.jpg -o "$out/still" --disparities 112 \
  --ground-truth samples/aloe/disparity-left.png --gt-scale 2

say "The pictures are in $out/clip and $out/still; look at $out/still/disparity-0000.png first"
