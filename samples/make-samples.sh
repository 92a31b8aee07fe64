#!/bin/sh
# Recreates samples/aloe, which is part of the project, from the full-size pair in Debian's package
# opencv-doc. Usage: make-samples.sh
set -eu
origin=/usr/share/doc/opencv-doc/examples/data
out=$(cd "$(dirname "$0")/.." && pwd)/samples/aloe
mkdir -p "$out"

# 1282 x 1110 -> 640 x 552: cuts off the last two columns and six rows, then halves both directions.
# The cut is the same in all three, so it keeps the disparities; halving halves them.
cut=crop=1280:1104:0:0:exact=1
for side in L R; do
  name=$([ "$side" = L ] && echo left || echo right)
  ffmpeg -v error -y -i "$origin/aloe$side.jpg" -vf "$cut,scale=640:552:flags=area" -qmin 1 -q:v 1 \
    "$out/$name.jpg"
done
# Nearest neighbour keeps the grey values: no disparity is mixed with "unknown".
ffmpeg -v error -y -i "$origin/aloeGT.png" -vf "$cut,scale=640:552:flags=neighbor" -pix_fmt gray \
  "$out/disparity-left.png"
