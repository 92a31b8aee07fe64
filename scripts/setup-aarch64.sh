#!/usr/bin/env bash
# Unpacks the root directory that the preset `aarch64` builds against: 64-bit Arm libraries and headers
# of everything that the library, the command and their tests need. Does nothing if it already exists
# with these packages.
#
# usage: setup-aarch64.sh [SUITE [DIRECTORY]]
#   SUITE       bookworm (FFmpeg 5.1, the default) or bullseye (FFmpeg 4.3, the boards' generation)
#   DIRECTORY   absolute; build/roots/aarch64 unless given
# Exit status 77: the mirror no longer serves the suite.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

suite=${1-bookworm}
root=${2-$project/build/roots/aarch64}
packages=libavformat-dev,libavcodec-dev,libavutil-dev,libswscale-dev,libgoogle-glog-dev,libyaml-cpp-dev
packages+=,libturbojpeg0-dev
packages+=,libgtest-dev,libgmock-dev,nlohmann-json3-dev,libpng-dev,libc6-dev,libgomp1
case $suite in
  bookworm) packages+=,libcli11-dev,libstdc++-12-dev,libomp-$llvm-dev ;;
  bullseye) packages+=,libstdc++-10-dev,libomp-11-dev ;;
  *) die "unknown suite '$suite'; usage: setup-aarch64.sh [bookworm|bullseye [DIRECTORY]]" ;;
esac
[ "$(cat "$root/.complete" 2>/dev/null || true)" != "$suite $packages" ] || exit 0
scripts/install-packages.sh roots

say "Unpacking $suite for arm64 into $root"
status=0
unpack_root "$root" "$suite" --variant=extract --arch=arm64 --include="$packages" || status=$?
if [ "$status" -eq 77 ]; then
  echo "the mirror no longer serves $suite for arm64 (see above)"
  exit 77
fi
[ "$suite" != bullseye ] || unpack_cli11 "$root"
# Absolute links would lead out of the root.
find "$root/lib" "$root/usr/lib" -type l -lname '/*' | while read -r link; do
  ln -srfn "$root$(readlink "$link")" "$link"
done
echo "$suite $packages" >"$root/.complete"
