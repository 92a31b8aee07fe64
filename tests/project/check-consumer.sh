#!/usr/bin/env bash
# Installs a build into a directory, moves the directory and uses it as an application would: runs the
# command, compiles each public header separately, and builds the examples, and a program with CMake and
# with pkg-config. The program is then built with the sources as a subproject, without the libraries that
# only the command and the tests need.
#
# usage: check-consumer.sh BUILD_DIR
. "$(dirname "${BASH_SOURCE[0]}")/../../scripts/common.sh"

build=$(cd "${1:?usage: check-consumer.sh BUILD_DIR}" && pwd)
stage=$build/stage
rm -rf "$stage" "$stage.before"
cmake --install "$build" --prefix "$stage.before" >/dev/null
mv "$stage.before" "$stage"

# The installed command once found its library only in the system's directories.
env -u LD_LIBRARY_PATH "$stage/bin/qxtools" --version || die "the installed command does not start"
if find "$stage" -path '*lintian*' -o -name copyright | grep .; then
  die "the files above belong in a Debian package"
fi

# Each page was once titled "qxtools", and did not mention the exit status.
check_page() {
  local page=$1 name text section
  name=$(basename "$page" .1.gz)
  text=$(zcat "$page")
  grep -qF ".TH ${name^^} 1 " <<<"${text//\\-/-}" || die "$page has the wrong title"
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS 'EXIT STATUS' 'SEE ALSO'; do
    grep -qxF ".SH $section" <<<"$text" || die "$page has no section $section"
  done
}
pages=("$stage"/share/man/man1/*.1.gz)
[ ${#pages[@]} -gt 6 ] || die "man pages are missing"
for page in "${pages[@]}"; do check_page "$page"; done

check_header() {
  local header=$1 compiler standard
  for compiler in g++ "clang++-$llvm"; do
    for standard in 17 20; do
      echo "#include <$header>" | "$compiler" -std=c++$standard -Wall -Wextra -Wpedantic -Werror \
        -I"$stage/include" -fsyntax-only -x c++ - ||
        die "$header does not compile on its own with $compiler in C++$standard"
    done
  done
  if echo "#include <$header>" | g++ -std=c++17 -I"$stage/include" -E -x c++ - |
    grep -E '^# [0-9]+ ".*/(libav[a-z]+|glog|omp|[a-z]+intrin)[/.]'; then
    die "$header includes a header that applications may not have"
  fi
}
count=0
for header in "$stage"/include/qxtools/*.h; do
  check_header "qxtools/$(basename "$header")"
  count=$((count + 1))
done
[ "$count" -gt 0 ] || die "no public headers were installed"

# build_consumer FOLDER OPTION...: builds and runs tests/project/consumer.
build_consumer() {
  rm -rf "$1"
  cmake -S tests/project/consumer -B "$1" -G Ninja "${@:2}" >"$1.log" || { tail -n 20 "$1.log" >&2; die "$1"; }
  cmake --build "$1" >"$1.log" || { tail -n 20 "$1.log" >&2; die "$1 was not built"; }
  "$1/consumer"
}
build_consumer "$build/consumer" -DCMAKE_PREFIX_PATH="$stage"

export PKG_CONFIG_PATH=$(dirname "$(find "$stage" -name qxtools.pc)")
# shellcheck disable=SC2046
g++ -std=c++17 tests/project/consumer/main.cc $(pkg-config --cflags --libs qxtools) -o "$build/consumer/by-pkg-config"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir qxtools) "$build/consumer/by-pkg-config"

# Without an input, the examples' tests that read one are not registered.
examples=$build/consumer/examples
cmake -S "$stage/share/doc/qxtools/examples" -B "$examples" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$examples" >/dev/null
(cd "$examples" && ctest --output-on-failure --no-tests=error >/dev/null) || die "the examples' tests failed"

absent=()
for package in CLI11 nlohmann_json PNG GTest; do absent+=("-DCMAKE_DISABLE_FIND_PACKAGE_$package=ON"); done
build_consumer "$build/subproject" -DQXTOOLS_SOURCES="$project" "${absent[@]}"
echo "consumer: the command, $count headers on their own, and the library with CMake, pkg-config and as a subproject"
