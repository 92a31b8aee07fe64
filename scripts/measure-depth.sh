#!/usr/bin/env bash
# Measures the way from raw stereo pictures to depth: rectified pictures against OpenCV's, the squares
# of a real chessboard, and depths where the true ones are known.
#
# usage: measure-depth.sh [FOLDER [CALIBRATION...]]
#   FOLDER       left*.jpg and right*.jpg (or .png), raw pictures of a board with 9 x 6 inner corners
#   CALIBRATION  one or two files in a unit of the board's squares. Without one, OpenCV calibrates the
#                cameras with half of the pairs, for the measurement of the other half, and vice versa.
#
# Without a FOLDER the 13 pairs in Debian's package opencv-doc are taken. It is downloaded into build/,
# not installed. See bench/depth/board_depth.cc for other boards and distances.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scripts/install-packages.sh test bench
configure_and_build dev board_depth known_depth rectify_bench
programs=$project/build/dev/bench
work=$project/build/depth
mkdir -p "$work"

# fetch_samples: unpacks OpenCV's sample pictures. Returns: their folder in $samples.
fetch_samples() {
  samples=/usr/share/doc/opencv-doc/examples/data
  [ ! -e $samples/left01.jpg ] || return 0
  samples=$work/opencv-doc$samples
  [ ! -e "$samples/left01.jpg" ] || return 0
  say "Download opencv-doc"
  (cd "$work" && apt-get download -q opencv-doc >download.log 2>&1 && dpkg-deb -x opencv-doc_*.deb opencv-doc &&
    rm opencv-doc_*.deb) || die "cannot download opencv-doc; run: apt-get update"
}

# pairs_of PARITY: the left and right pictures of the folder's even (0) or odd (1) pairs, or all (2).
pairs_of() {
  local left right i=0
  for left in "$folder"/left[0-9]*.{jpg,png}; do
    right=$folder/right${left##*/left}
    [ -e "$left" ] && [ -e "$right" ] || continue
    [ "$1" -ne 2 ] && [ $((i % 2)) -ne "$1" ] || printf '%s\n' "$left" "$right"
    i=$((i + 1))
  done
}

# compare_with_opencv CALIBRATIONS PICTURE...: prints the worst of the rectification's comparisons. Fails
# if a map is off by more than 0.01 pixel, or more than 0.1 % of a picture by more than a grey level.
compare_with_opencv() {
  local calibrations=${1//,/ }
  shift
  # shellcheck disable=SC2086  # one or two files
  "$programs/rectify_bench" 0 $calibrations "$@" >"$work/rectify.txt"
  awk '{for (i = 1; i < NF; ++i) {
         if ($i == "maps") {++maps; if ($(i + 1) > most) most = $(i + 1)}
         if ($i == "%" && $(i + 1) == "within") {++pictures; if (least == "" || $(i - 1) < least) least = $(i - 1)}}}
       END {printf "%d maps: at most %s pixel from those of OpenCV\n", maps, most
            printf "%d comparisons of pictures: at least %s %% of the pixels within 1 grey level\n", pictures, least
            exit !(maps && pictures && most <= 0.01 && least >= 99.9)}' "$work/rectify.txt"
}

# measure CALIBRATIONS PARITY
measure() {
  local pictures
  mapfile -t pictures < <(pairs_of "$2")
  [ ${#pictures[@]} -gt 0 ] || die "no pairs in $folder"
  compare_with_opencv "$1" "${pictures[@]}" || failed=1
  printf '\n'
  "$programs/depth/board_depth" measure "$1" "${pictures[@]}" || failed=1
}

failed=0
known=(samples/aloe:112:2:1870:0.16:135)
if [ $# -eq 0 ]; then
  fetch_samples
  folder=$samples
  mkdir -p "$work/aloe-full"
  for name in L.jpg:left.jpg R.jpg:right.jpg GT.png:disparity-left.png; do
    ln -sf "$samples/aloe${name%:*}" "$work/aloe-full/${name#*:}"
  done
  known+=("$work/aloe-full:224:1:3740:0.16:270")
else
  folder=$1
  shift
fi
if [ $# -gt 0 ]; then
  calibration=$(IFS=, && printf '%s' "$*")
  say "Squares of the chessboard in $folder"
  measure "$calibration" 2
else
  for half in 0 1; do
    say "Calibration with half of the pairs, squares of the chessboard in the other half"
    mapfile -t pictures < <(pairs_of $((1 - half)))
    calibration=$work/calibration-$half.yml
    "$programs/depth/board_depth" calibrate "$calibration" "${pictures[@]}"
    measure "$calibration" $half
  done
fi

say "Depths where the true ones are known"
"$programs/depth/known_depth" "${known[@]}"
exit $failed
