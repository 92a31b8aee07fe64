#!/usr/bin/env bash
# Builds and tests against the FFmpeg 4 generation (libavformat 58, GCC 10, CMake 3.18), the one of
# the boards, in a Debian 11 root below build/. Needs root: it mounts the sources into that root.
#
# usage: test-ffmpeg4.sh [CTEST ARGUMENT...]
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

[ "$(id -u)" -eq 0 ] || die "needs root, to unpack a Debian 11 root and to mount the sources into it"
scripts/install-packages.sh roots

root=$project/build/debian11-root
packages=g++,cmake,ninja-build,pkg-config,libavformat-dev,libavcodec-dev,libavutil-dev,libswscale-dev
packages+=,libgoogle-glog-dev,libgtest-dev,libgmock-dev,libbenchmark-dev
packages+=,nlohmann-json3-dev,libpng-dev,ffmpeg,python3-gi,gir1.2-gst-rtsp-server-1.0
packages+=,gstreamer1.0-plugins-base,gstreamer1.0-plugins-good,gstreamer1.0-plugins-bad
if [ ! -f "$root/.complete" ]; then
  say "Unpacking a Debian 11 root"
  rm -rf "$root"
  if ! mmdebstrap --mode=root --variant=minbase --include="$packages" bullseye "$root" \
    "deb $(debian_mirror) bullseye main" >build/debian11-root.log 2>&1; then
    grep '^E:' build/debian11-root.log | cut -c1-300
    grep -qE "^E: (The repository|Failed to fetch)" build/debian11-root.log ||
      die "Debian 11 could not be unpacked; build/debian11-root.log tells why"
    echo "SKIPPED: Debian 11 is no longer served; the reason stands above"
    exit 0
  fi
  # Debian 11 has no CLI11; it is headers alone, so this system's package serves.
  (cd build && rm -f libcli11-dev_*.deb && apt-get download -q libcli11-dev >/dev/null &&
    dpkg-deb -x libcli11-dev_*.deb "$root") || die "libcli11-dev could not be fetched"
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
chroot "$root" /bin/bash -euc '
  cd /src
  cmake -S . -B build/ffmpeg4 -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQXTOOLS_WERROR=ON \
    -DQXTOOLS_CLIPS_DIR=/src/build/ffmpeg4/clips >/dev/null
  cmake --build build/ffmpeg4
  pkg-config --modversion libavformat | sed "s/^/libavformat /"
  cd build/ffmpeg4
  ctest --output-on-failure -j "$(nproc)" "$@"' ffmpeg4 "$@"
