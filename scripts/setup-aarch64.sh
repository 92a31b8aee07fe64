#!/usr/bin/env bash
# Unpacks the root folder that the preset `aarch64` builds against: 64-bit Arm libraries and headers
# of everything that the library, the command and their tests need. Does nothing when it is there.
#
# usage: setup-aarch64.sh [SUITE [FOLDER]]
#   SUITE    bookworm (FFmpeg 5.1, the default) or bullseye (FFmpeg 4.3, the board's generation)
#   FOLDER   build/aarch64-root unless given; must be absolute for another one
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

suite=${1-bookworm}
root=${2-$project/build/aarch64-root}
case $suite in
  bookworm) gcc=12 omp=14 ;;
  bullseye) gcc=10 omp=11 ;;
  *) die "unknown suite '$suite'; usage: setup-aarch64.sh [bookworm|bullseye [FOLDER]]" ;;
esac
if [ -e "$root/.complete" ] && [ "$(cat "$root/.complete")" = "$suite" ]; then
  say "The $suite root is in $root"
  exit 0
fi
command -v mmdebstrap >/dev/null || die "mmdebstrap is missing; run: apt-get install mmdebstrap"

say "Unpacking $suite for arm64 into $root"
rm -rf "$root"
mkdir -p "$root"
packages=libavformat-dev,libavcodec-dev,libavutil-dev,libswscale-dev,libgoogle-glog-dev
packages+=,libgtest-dev,libgmock-dev,libbenchmark-dev,libcli11-dev,nlohmann-json3-dev,libpng-dev
packages+=,libc6-dev,libstdc++-$gcc-dev,libgomp1,libomp-$omp-dev
mirror=$(debian_mirror)
mmdebstrap --mode=root --variant=extract --arch=arm64 --include="$packages" \
  "$suite" "$root" "deb $mirror $suite main" || die "cannot unpack $suite for arm64"
# Absolute links would lead out of the root.
find "$root/lib" "$root/usr/lib" -type l -lname '/*' | while read -r link; do
  ln -srfn "$root$(readlink "$link")" "$link"
done
echo "$suite" >"$root/.complete"
