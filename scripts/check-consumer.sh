#!/usr/bin/env bash
# Installs a build into a folder of its own and uses it as somebody else's project would: through
# CMake and through pkg-config; and compiles each public header alone.
#
# usage: check-consumer.sh BUILD_DIR
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

build=$(cd "${1:?usage: check-consumer.sh BUILD_DIR}" && pwd)
stage=$build/stage
rm -rf "$stage"
cmake --install "$build" --prefix "$stage" >/dev/null

check_header() {
  local header=$1 compiler standard
  for compiler in g++ clang++-14; do
    for standard in 17 20; do
      echo "#include <$header>" | "$compiler" -std=c++$standard -Wall -Wextra -Wpedantic -Werror \
        -I"$stage/include" -fsyntax-only -x c++ - ||
        die "$header does not compile alone with $compiler in C++$standard"
    done
  done
  if echo "#include <$header>" | g++ -std=c++17 -I"$stage/include" -E -x c++ - |
    grep -E '^# [0-9]+ ".*/(libav[a-z]+|glog|omp|[a-z]+intrin)[/.]'; then
    die "$header pulls in what a consumer need not have"
  fi
}
count=0
for header in "$stage"/include/qxtools/*.h; do
  check_header "qxtools/$(basename "$header")"
  count=$((count + 1))
done
[ "$count" -gt 0 ] || die "no public headers were installed"

run() { LD_LIBRARY_PATH=$(dirname "$(find "$stage" -name libqxtools.so)") "$1"; }
rm -rf "$build/consumer"
cmake -S tests/consumer -B "$build/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$build/consumer" >/dev/null
run "$build/consumer/consumer"

export PKG_CONFIG_PATH=$(dirname "$(find "$stage" -name qxtools.pc)")
# shellcheck disable=SC2046
g++ -std=c++17 tests/consumer/main.cc $(pkg-config --cflags --libs qxtools) -o "$build/consumer/by-pkg-config"
run "$build/consumer/by-pkg-config"
echo "consumer: $count headers alone, and the library through CMake and pkg-config"
