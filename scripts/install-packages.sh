#!/usr/bin/env bash
# Installs the packages that the project needs, if they are missing.
#
# usage: install-packages.sh [demo|test|faults|cameras|bench|package|roots]...
#   demo     for building and running the command (always included)
#   test     for scripts/test.sh
#   faults   for scripts/test-faults.sh, in addition to test
#   cameras  for scripts/test-cameras.sh, in addition to test
#   bench    the libraries that the benchmarks compare with
#   package  for packaging/build-packages.sh
#   roots    for the scripts that test for boards
# Written for Debian and Ubuntu; needs root or sudo only when something is missing.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

demo_packages=(
  g++ cmake ninja-build pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libturbojpeg0-dev libgoogle-glog-dev
  libyaml-cpp-dev
  libcli11-dev nlohmann-json3-dev libpng-dev
  ffmpeg python3
)
test_packages=(
  "clang-$llvm" "clang-format-$llvm" "clang-tidy-$llvm" "libclang-rt-$llvm-dev" "llvm-$llvm" "libomp-$llvm-dev"
  libgtest-dev libgmock-dev doxygen
  python3-gi gir1.2-gst-rtsp-server-1.0
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
)
faults_packages=(valgrind)
cameras_packages=(vlc-bin vlc-plugin-base)
command -v npm >/dev/null || cameras_packages+=(npm) # other sources' packages conflict with Debian's
bench_packages=(libyuv-dev libdnnl-dev libopencv-dev)
package_packages=(dpkg-dev lintian file)
roots_packages=(mmdebstrap qemu-user "lld-$llvm" "clang-$llvm" g++-aarch64-linux-gnu)

wanted=("${demo_packages[@]}")
for group in "$@"; do
  case $group in
    demo) ;;
    test) wanted+=("${test_packages[@]}") ;;
    faults) wanted+=("${faults_packages[@]}") ;;
    cameras) wanted+=("${cameras_packages[@]}") ;;
    bench) wanted+=("${bench_packages[@]}") ;;
    package) wanted+=("${package_packages[@]}") ;;
    roots) wanted+=("${roots_packages[@]}") ;;
    *) die "unknown group '$group'; known are demo, test, faults, cameras, bench, package and roots" ;;
  esac
done

missing=()
for package in "${wanted[@]}"; do
  state=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$state" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || die "needs root or sudo to install: ${missing[*]}"
  as_root=(sudo)
fi
say "Installing ${#missing[@]} packages: ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update -q &&
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    "${missing[@]}"; } >"$log" 2>&1; then
  tail -n 20 "$log" >&2
  die "cannot install the packages; the package manager's last lines are above"
fi
