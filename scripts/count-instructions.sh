#!/usr/bin/env bash
# Counts the instructions that the cost volume's AArch64 variants execute under user-mode emulation,
# next to the element-by-element loop: per shape and variant the count of one call on one thread and
# how many times fewer that is. A count, not time. Compiler and flags are pinned.
#
# usage: count-instructions.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

root=$project/build/roots/aarch64
out=$project/build/count-instructions
command -v qemu-aarch64 >/dev/null || die "qemu-aarch64 is missing; run: apt-get install qemu-user"
scripts/setup-aarch64.sh
mkdir -p "$out"
clang-14 -O2 -shared -fPIC -Wall scripts/instruction_counter.c -o "$out/counter.so"

kernels=qx_utils/image/kernels/cost_volume
compile() {
  clang++-14 --target=aarch64-linux-gnu --sysroot="$root" -std=c++17 -O3 -ffp-contract=off \
    -fopenmp=libomp -I. "$@"
}
objects=()
for source in ${kernels}{,_scalar,_neon}.cc bench/{count_cost_volume,cost_volume_element_loop}.cc; do
  objects+=("$out/$(basename "$source").o")
  compile -mcpu=cortex-a53 -c "$source" -o "${objects[-1]}"
done
compile -march=armv8.2-a+dotprod -c ${kernels}_neon_dotprod.cc -o "$out/dotprod.o"
compile -fuse-ld=lld -L"$(echo "$root"/usr/lib/llvm-*/lib)" "${objects[@]}" "$out/dotprod.o" \
  -o "$out/count_cost_volume"

# executed NAME RUNS SHAPE...: instructions of the whole program
executed() {
  qemu-aarch64 -cpu max -L "$root" -plugin "$out/counter.so" "$out/count_cost_volume" "$@" 2>&1
}

printf '%-20s %-14s %14s %10s\n' 'H x W x C, D' variant instructions fewer
for shape in '4 320 32 48' '4 320 64 64' '4 480 128 96' '4 960 32 128' '4 80 256 16'; do
  loop=
  for name in loop neon neon_dotprod; do
    # shellcheck disable=SC2086  # a shape is four arguments
    count=$(($(executed $name 2 $shape) - $(executed $name 1 $shape)))
    loop=${loop:-$count}
    printf '%-20s %-14s %14d %9sx\n' "$(echo "$shape" | sed 's/ \([0-9]*\)$/, \1/; s/ \([0-9]\)/x\1/g; s/,x/, /')" \
      $name $count "$(awk "BEGIN { printf \"%.2f\", $loop / $count }")"
  done
done
