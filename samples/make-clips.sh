#!/bin/sh
# Encodes the test clips from samples/aloe. Usage: make-clips.sh [OUT_DIR]   (default: build/clips)
#
# A window of 320 x 240 moves over the pair, the same way in both pictures: real texture, real
# motion, real disparities. 24 pictures at 25 a second unless said otherwise.
#
#   left.h264 right.h264     H.264 High, level 3, Annex B, no reordering
#   left.mp4 left.mkv left.ts    the same packets in containers; right.mp4 is the other eye
#   ground-truth.png         disparities of the left clip's first picture; grey = 2 x disparity, 0 unknown
#   aloe-left.pgm aloe-right.pgm aloe-disparity-left.pgm   the samples in grey
#   short_start_codes.h264   left.h264 with a start code of 3 bytes before its first parameter set
#   bframes.h264 .mp4 .mkv .ts   Main, reordered pictures in a pyramid, so pictures are held back at the end
#   baseline.h264            Constrained Baseline
#   interlaced.h264          field coding; 240 lines are padded to 256 and cropped
#   full_range.mp4           yuvj420p
#   bt709.mp4                says that its colours follow BT.709; 1 picture
#   cropped.h264 cropped.mp4     318 x 238, padded to 320 x 240 and cropped
#   odd.mp4                  317 x 177, grey, 30000/1001 pictures a second, 12 pictures
#   chroma422.mp4            High 4:2:2, 8 bit
#   bits10.mp4               High 10, 4:2:0
#   hevc.h265 hevc.mp4       H.265 Main, 320 x 240, without a conformance window
#   hevc_window.h265 .mp4    H.265 Main, 318 x 238, coded as 320 x 240 with a conformance window
#   audio_first.mp4          stream 0 audio, stream 1 the packets of left.mp4
#   two_videos.mp4           stream 0 H.264 160 x 120, stream 1 the packets of left.mp4
#   other_codec_first.mkv    stream 0 MPEG-4 Part 2, stream 1 the packets of left.mp4
#   size_change.h264         12 pictures of 320 x 240, then 12 of 160 x 120
#   mjpeg.mkv mpeg4.mp4      video, but no H.264 or H.265
#   audio.m4a                no video at all
#
# Does nothing if the directory is up to date. Several processes may run it at the same time.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/build/clips}
mkdir -p "$out"
out=$(cd "$out" && pwd)

exec 9> "$out/.lock.txt"
flock 9
stamp=$(cat "$0" "$root"/samples/aloe/* | sha256sum)
[ "$(cat "$out/.stamp.txt" 2> /dev/null || true)" != "$stamp" ] || exit 0

work=$out/.new
rm -rf "$work"
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
mkdir "$work"
cd "$work"

ff() { ffmpeg -nostdin -v error -y "$@"; }
# FFmpeg asks for timestamps when it copies raw H.264; the pictures are in order here.
copy() { ff -fflags +genpts "$@"; }

window='crop=320:240:40+8*n:24+6*n'
for eye in left right; do
  ff -framerate 25 -loop 1 -i "$root/samples/aloe/$eye.jpg" \
    -vf "$window,scale=out_range=tv,format=yuv420p" -frames:v 24 -c:v rawvideo $eye.nut
done
ff -i "$root/samples/aloe/disparity-left.png" -vf "crop=320:240:40:24" -pix_fmt gray ground-truth.png
for picture in left.jpg right.jpg disparity-left.png; do
  ff -i "$root/samples/aloe/$picture" -pix_fmt gray "aloe-${picture%.*}.pgm"
done

# x264 PROFILE IN OUT [OPTION...]
x264() {
  profile=$1 in=$2 to=$3
  shift 3
  ff -i "$in" -c:v libx264 -preset veryfast -threads 1 -profile:v "$profile" -level 3 -g 12 "$@" "$to"
}
# x265 IN OUT [OPTION...]
x265() {
  in=$1 to=$2
  shift 2
  ff -i "$in" -c:v libx265 -preset ultrafast -pix_fmt yuv420p \
    -x265-params log-level=error:pools=1:frame-threads=1:level-idc=30:keyint=12 "$@" "$to"
}

x264 high left.nut left.mp4 -bf 0
x264 high right.nut right.mp4 -bf 0
for eye in left right; do copy -i $eye.mp4 -c copy $eye.h264; done
copy -i left.mp4 -c copy left.mkv
copy -i left.mp4 -c copy left.ts
# The first start code of the file loses its leading zero byte.
tail -c +2 left.h264 > short_start_codes.h264
x264 main left.nut bframes.mp4 -bf 3 -x264-params b-pyramid=normal:b-adapt=0
for kind in h264 mkv ts; do copy -i bframes.mp4 -c copy bframes.$kind; done
x264 baseline left.nut baseline.h264
x264 high left.nut interlaced.h264 -flags +ildct+ilme -x264-params interlaced=1:tff=1
x264 high left.nut full_range.mp4 -pix_fmt yuvj420p
x264 high left.nut bt709.mp4 -colorspace bt709 -color_primaries bt709 -color_trc bt709 -frames:v 1
x264 high left.nut cropped.mp4 -vf crop=318:238:0:0
copy -i cropped.mp4 -c copy cropped.h264
x264 high left.nut odd.mp4 -vf 'scale=317:177,setpts=N*1001/30000/TB' -r 30000/1001 \
  -pix_fmt gray -frames:v 12
x264 high422 left.nut chroma422.mp4 -pix_fmt yuv422p -frames:v 6
x264 high10 left.nut bits10.mp4 -pix_fmt yuv420p10le -frames:v 6

x265 left.nut hevc.mp4 -frames:v 12
x265 left.nut hevc_window.mp4 -frames:v 12 -vf crop=318:238:0:0
for name in hevc hevc_window; do copy -i $name.mp4 -c copy -f hevc $name.h265; done

x264 baseline left.nut small.mp4 -vf scale=160:120 -frames:v 12
copy -i small.mp4 -c copy small.h264
x264 high left.nut large.h264 -bf 0 -frames:v 12
cat large.h264 small.h264 > size_change.h264
ff -f lavfi -i sine=duration=0.96 -c:a aac -b:a 32k audio.m4a
ff -i left.nut -c:v mjpeg -pix_fmt yuvj420p -frames:v 6 mjpeg.mkv
ff -i left.nut -c:v mpeg4 -frames:v 6 mpeg4.mp4
ff -i audio.m4a -i left.mp4 -map 0:a -map 1:v -c copy audio_first.mp4
ff -i small.mp4 -i left.mp4 -map 0:v -map 1:v -c copy two_videos.mp4
ff -i mpeg4.mp4 -i left.mp4 -map 0:v -map 1:v -c copy other_codec_first.mkv
rm ./*.nut small.mp4 small.h264 large.h264

# Clips appear only when complete. The stamp comes last, so an incomplete set is made again.
rm -f "$out/.stamp.txt"
mv ./* "$out"
printf '%s\n' "$stamp" > "$out/.stamp.txt"
