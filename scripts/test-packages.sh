#!/usr/bin/env bash
# Installs the Debian packages in a bare Debian 12 root below build/ and builds and runs the examples
# there against the packages alone: no sources but examples/, no headers of FFmpeg, glog or OpenMP.
# Needs root, to unpack and enter that root.
#
# usage: test-packages.sh      (after build-packages.sh)
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

[ "$(id -u)" -eq 0 ] || die "needs root, to unpack a Debian 12 root and to run in it"
packages=(build/packages/*.deb)
[ -e "${packages[0]}" ] || die "no packages in build/packages; run: scripts/build-packages.sh"
scripts/install-packages.sh roots
scripts/make-clips.sh

root=$project/build/roots/packages
say "Unpacking a bare Debian 12 root"
unpack_root "$root" bookworm --variant=minbase || die "Debian 12 could not be unpacked"
cp -r examples "${packages[@]}" "$root/root/"
cp build/clips/left.mp4 "$root/root/"

mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
trap 'umount "$root/proc" "$root/dev"' EXIT
say "Installing the packages, building and running the examples"
chroot "$root" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive bash -euc '
  cd /root
  apt-get update -q >/dev/null
  apt-get install -y -q --no-install-recommends g++ cmake make pkg-config ./*.deb >install.log 2>&1 ||
    { tail -n 20 install.log; exit 1; }
  for header in libavformat/avformat.h glog/logging.h; do
    ! find /usr/include -path "*/$header" | grep . || { echo "$header is here: proves nothing"; exit 1; }
  done
  cmake -S examples -B build -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" -DQXTOOLS_EXAMPLE_INPUT=/root/left.mp4 >/dev/null
  cmake --build build
  cd build
  ctest --output-on-failure
  g++ -std=c++17 ../examples/cost_volume.cc $(pkg-config --cflags --libs qxtools) -o by-pkg-config
  ./by-pkg-config
  qxtools doctor
  qxtools probe ../left.mp4'
