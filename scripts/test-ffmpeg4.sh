#!/usr/bin/env bash
# Builds and tests against the FFmpeg 4 generation (libavformat 58, GCC 10, CMake 3.18) that
# the boards have, in a Debian 11 root below build/. Must run as root to mount the sources there.
#
# usage: test-ffmpeg4.sh [CTEST ARGUMENT...]
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

[ "$(id -u)" -eq 0 ] || die "must run as root to unpack a Debian 11 root and mount the sources into it"
scripts/install-packages.sh roots

root=$project/build/roots/debian11
packages=g++,cmake,ninja-build,pkg-config,libavformat-dev,libavcodec-dev,libavutil-dev,libswscale-dev
packages+=,libgoogle-glog-dev,libyaml-cpp-dev,libturbojpeg0-dev,libgtest-dev,libgmock-dev
packages+=,nlohmann-json3-dev,libpng-dev,ffmpeg,python3-gi,gir1.2-gst-rtsp-server-1.0
packages+=,gstreamer1.0-plugins-base,gstreamer1.0-plugins-good,gstreamer1.0-plugins-bad
if [ ! -f "$root/.complete" ]; then
  say "Unpacking a Debian 11 root"
  status=0
  unpack_root "$root" bullseye --variant=minbase --include="$packages" || status=$?
  if [ "$status" -eq 77 ]; then
    echo "SKIPPED: the mirror no longer serves Debian 11 (see above)"
    exit 0
  fi
  unpack_cli11 "$root"
  touch "$root/.complete"
fi

mkdir -p "$root/src"
mounted=()
unmount() { for point in "${mounted[@]}"; do umount "$point"; done; }
trap unmount EXIT
mount_below() {
  mount --bind "$1" "$root$2"
  mounted=("$root$2" "${mounted[@]}")
}
mount_below "$project" /src
mount_below /proc /proc
mount_below /dev /dev

say "Build and test against FFmpeg 4"
# This system's environment does not apply in there.
env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root chroot "$root" /bin/bash -euc '
  cd /src
  cmake -S . -B build/ffmpeg4 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQXTOOLS_WERROR=ON \
    -DQXTOOLS_CLIPS_DIR=/src/build/ffmpeg4/clips >/dev/null
  cmake --build build/ffmpeg4
  pkg-config --modversion libavformat | sed "s/^/libavformat /"
  cd build/ffmpeg4
  ctest --output-on-failure -j "$(nproc)" "$@"' ffmpeg4 "$@"
