#!/usr/bin/env bash
# Puts the Debian packages into a repository in a bare Debian 12 root below build/, and installs each
# one by name, with only its dependencies. With libqxtools-dev, builds and runs the examples without
# our sources and without headers of FFmpeg, glog or OpenMP. Must run as root, to enter that root.
#
# usage: test-packages.sh      (after build-packages.sh)
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

[ "$(id -u)" -eq 0 ] || die "must run as root to unpack a Debian 12 root and run in it"
packages=(build/packages/*.deb)
[ -e "${packages[0]}" ] || die "no packages in build/packages; run: packaging/build-packages.sh"
scripts/install-packages.sh package roots
samples/make-clips.sh

root=$project/build/roots/packages
say "Unpacking a bare Debian 12 root"
unpack_root "$root" bookworm --variant=minbase || die "cannot unpack Debian 12"
mkdir "$root/packages"
cp "${packages[@]}" "$root/packages/"
(cd "$root/packages" && dpkg-scanpackages --multiversion . >Packages 2>/dev/null)
echo 'deb [trusted=yes] file:/packages ./' >"$root/etc/apt/sources.list.d/qxtools.list"
cp build/clips/left.mp4 "$root/root/"

mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
trap 'umount "$root/proc" "$root/dev"' EXIT

# inside COMMANDS: runs them in the root, by a shell that stops at the first failure.
inside() {
  chroot "$root" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive \
    bash -euc "cd /root; $1"
}
install_packages() {
  inside "apt-get install -y -q --no-install-recommends $* >install.log 2>&1 || { tail -n 20 install.log; exit 1; }"
}
# The next package must not find anything that this one installed.
remove_packages() {
  inside "apt-get purge -y -q --autoremove $* >remove.log 2>&1 || { tail -n 20 remove.log; exit 1; }
    ! dpkg -l 2>/dev/null | grep qxtools"
}
inside 'apt-get update -q >update.log 2>&1 || { tail -n 20 update.log; exit 1; }'

say "libqxtools1 by its name"
install_packages libqxtools1
inside 'ldconfig -p | grep libqxtools'
remove_packages libqxtools1

# The package of the command once lacked the dependency on the library.
say "qxtools by its name"
install_packages qxtools
inside 'qxtools --version; qxtools doctor; qxtools probe left.mp4'
remove_packages qxtools

say "libqxtools-dev by its name, and the examples"
install_packages libqxtools-dev g++ cmake make pkg-config
inside '
  for header in libavformat/avformat.h glog/logging.h; do
    ! find /usr/include -path "*/$header" | grep . || { echo "$header is installed, so this test would prove nothing"; exit 1; }
  done
  examples=/usr/share/doc/libqxtools-dev/examples
  cmake -S "$examples" -B build -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" -DQXTOOLS_EXAMPLE_INPUT=/root/left.mp4 >/dev/null
  cmake --build build
  (cd build && ctest --output-on-failure)
  g++ -std=c++17 "$examples/cost_volume.cc" $(pkg-config --cflags --libs qxtools) -o by-pkg-config
  ./by-pkg-config'
