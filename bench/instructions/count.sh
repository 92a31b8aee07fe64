#!/usr/bin/env bash
# Counts the instructions that AArch64 kernels execute under user-mode emulation: a count, not time.
# Prints for each shape and variant the count of one call on one thread, and how many times fewer
# that is than the plain loop's. Compiler and flags are pinned.
#
# usage: count.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../scripts/common.sh"

root=$project/build/roots/aarch64
out=$project/build/instructions
kernels=qx_utils/image/kernels
command -v qemu-aarch64 >/dev/null || die "qemu-aarch64 is missing; run: scripts/install-packages.sh roots"
scripts/setup-aarch64.sh
mkdir -p "$out"
"clang-$llvm" -O2 -shared -fPIC -Wall bench/instructions/counter.c -o "$out/counter.so"

compile() {
  "clang++-$llvm" --target=aarch64-linux-gnu --sysroot="$root" -std=c++17 -O3 -ffp-contract=off \
    -fopenmp=libomp -I. "$@"
}

# build PROGRAM SOURCE...: for the board's processor, files with dot products for one that has them
build() {
  local program=$1 source objects=() cpu
  shift
  for source in "$@"; do
    cpu=-mcpu=cortex-a53
    [[ $source != *_dotprod.cc ]] || cpu=-march=armv8.2-a+dotprod
    objects+=("$out/$program-${source//\//_}.o") # programs and kernels share names
    compile "$cpu" -c "$source" -o "${objects[-1]}"
  done
  compile -fuse-ld=lld -L"$(echo "$root"/usr/lib/llvm-*/lib)" "${objects[@]}" -o "$out/$program"
}

# executed PROGRAM NAME RUNS SHAPE...: instructions of the whole program
executed() {
  local program=$1
  shift
  qemu-aarch64 -cpu max -L "$root" -plugin "$out/counter.so" "$out/$program" "$@" 2>&1
}

# table PROGRAM HEADING 'NAME...' SHAPE...: the first name is what the others are compared with
table() {
  local program=$1 heading=$2 names=$3 shape name count first
  shift 3
  printf '%-20s %-14s %14s %10s\n' "$heading" variant instructions fewer
  for shape in "$@"; do
    first=
    for name in $names; do
      # shellcheck disable=SC2086  # a shape is several arguments
      count=$(($(executed "$program" "$name" 2 $shape) - $(executed "$program" "$name" 1 $shape)))
      first=${first:-$count}
      printf '%-20s %-14s %14d %9sx\n' "${shape// /x}" "$name" $count \
        "$(awk "BEGIN { printf \"%.2f\", $first / $count }")"
    done
  done
}

build cost_volume bench/instructions/cost_volume.cc bench/cost_volume_element_loop.cc \
  $kernels/cost_volume_{scalar.cc,neon.cc,neon.S,neon_dotprod.cc}
table cost_volume 'H x W x C x D' 'loop neon neon_dotprod' \
  '4 320 32 48' '4 320 64 64' '4 480 128 96' '4 960 32 128' '4 80 256 16'

build stereo bench/instructions/stereo.cc \
  qx_utils/stereo/kernels/{features,disparity_map}_{scalar,neon}.cc
table stereo 'stage x H x W' 'scalar neon' 'features 96 448' 'median3 96 448' 'median5 96 448'

build remap bench/instructions/remap.cc qx_utils/stereo/camera/remap_table.cc \
  qx_utils/stereo/kernels/remap_{scalar,neon}.cc
table remap 'picture x H x W' 'loop scalar neon' 'grey 48 640' 'colour 48 640'

build semi_global bench/instructions/semi_global.cc \
  qx_utils/stereo/kernels/semi_global{,_scalar,_neon}.cc
table semi_global 'H x W x D x paths' 'scalar neon' \
  '8 320 64 8' '8 320 64 4' '8 320 112 8' '8 320 128 8' '8 320 128 4'
