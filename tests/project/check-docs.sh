#!/usr/bin/env bash
# Checks every *.md of the project: relative links lead to a file and to a heading of it, paths in
# backticks exist, and C++ blocks compile against the public headers. A block may be a
# function's body; one without #include lines sees all public headers and the standard streams.
#
# usage: check-docs.sh [DOXYFILE [LIBRARY CLIPS]]
#   DOXYFILE        also builds the reference site with it, without a warning, and looks at its pages
#   LIBRARY, CLIPS  also runs the README's first C++ block with clips instead of its camera
. "$(dirname "${BASH_SOURCE[0]}")/../../scripts/common.sh"

mapfile -t pages < <(find . -path ./build -prune -o -path ./.git -prune -o -name '*.md' -printf '%P\n' | sort)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
complain() {
  printf '%s\n' "$*" >&2
  failures=$((failures + 1))
}

# The anchors that headings of a page get.
anchors() {
  awk '/^```/ {code = !code} !code' "$1" | sed -n 's/^##* *//p' | tr '[:upper:]' '[:lower:]' |
    sed -e 's/[^a-z0-9 _-]//g' -e 's/ /-/g'
}

links=0
for page in "${pages[@]}"; do
  while read -r link; do
    links=$((links + 1))
    target=${link%%#*}
    file=$(dirname "$page")/$target
    [ -n "$target" ] || file=$page
    if [ ! -e "$file" ]; then
      complain "$page: dead link: $link"
    elif [[ $link == *'#'* ]] && ! anchors "$file" | grep -qxF -- "${link#*#}"; then
      complain "$page: no such heading: $link"
    fi
  done < <(grep -oE '\]\([^) ]+\)' "$page" | sed -e 's/^](//' -e 's/)$//' | grep -vE '^[a-z]+:' || true)
  while read -r path; do
    links=$((links + 1))
    [ -e "$path" ] || complain "$page: \`$path\` does not exist"
  done < <(grep -oE '`(bench|cmake|docs|examples|fuzz|include|board|qx_utils|scripts|tests|tools|vision|vitis)/[A-Za-z0-9_./-]*`' "$page" |
    tr -d '`' || true)
done
[ "$links" -gt 0 ] || die "no links found in ${#pages[@]} pages"

# One file per C++ block, named after its page and line.
for page in "${pages[@]}"; do
  awk -v base="$work/${page//\//_}" '
    /^```cpp$/ {file = base "-" NR ".cc"; next}
    /^```$/ {if (file) close(file); file = ""}
    file {print > file}' "$page"
done
mapfile -t blocks < <(find "$work" -name '*.cc' | sort)
[ ${#blocks[@]} -gt 0 ] || die "no C++ blocks found in ${#pages[@]} pages"
compiles() { g++ -std=c++17 -Iinclude -fsyntax-only "$1" 2>"$work/errors.txt"; }
for block in "${blocks[@]}"; do
  {
    grep '^#include' "$block" || {
      for header in include/qxtools/*.h; do echo "#include <qxtools/${header##*/}>"; done
      echo '#include <iostream>'
    }
  } >"$work/head.txt"
  grep -v '^#include' "$block" >"$work/body.txt"
  cat "$work/head.txt" "$work/body.txt" >"$work/whole.cc"
  { cat "$work/head.txt" && echo 'void Example() {' && cat "$work/body.txt" && echo '}'; } >"$work/wrapped.cc"
  compiles "$work/whole.cc" || compiles "$work/wrapped.cc" || {
    cat "$work/errors.txt" >&2
    complain "$(basename "$block" .cc): does not compile"
  }
done

# The site's pages show their pictures, and a header's first comment is on the header's page: once it
# was on that of a namespace.
check_site() {
  local html=$1 page header picture words
  for page in "$html"/*.html; do
    while read -r picture; do
      [ -e "$html/$picture" ] || complain "$(basename "$page"): no picture $picture"
    done < <(grep -oE '<img src="[^"]+"' "$page" | sed -e 's/.*src="//' -e 's/"$//' | grep -vE '^[a-z]+:' || true)
  done
  for header in include/qxtools/*.h; do
    words=$(sed -n '1s|^// \([A-Za-z0-9 ]*\).*|\1|p' "$header")
    page=$html/$(basename "$header" .h | sed 's/_/__/g')_8h.html
    grep -qF -- "${words:?no first comment in $header}" "$page" || complain "$page: not '$words...'"
  done
}

# It once printed 0 x 0 for containers.
run_first_block() {
  local library=$1 clips=$2 clip size program=$work/first
  {
    for header in include/qxtools/*.h; do echo "#include <qxtools/${header##*/}>"; done
    printf '#include <iostream>\nvoid First(const char* input) {\n'
    awk '/^```cpp$/ {inside = 1; next} /^```$/ {if (inside) exit} inside' README.md | sed 's/"rtsp:[^"]*"/input/'
    printf '}\nint main(int, char** argv) { First(argv[1]); }\n'
  } >"$program.cc"
  g++ -std=c++17 -Iinclude "$program.cc" -o "$program" "$library" -Wl,-rpath,"$(dirname "$library")" ||
    die "the README's first block does not compile as a program"
  for clip in left.mp4 left.mkv left.ts left.h264 hevc.mp4 hevc.h265; do
    size=$("$program" "$clips/$clip" 2>/dev/null || true)
    [ "$size" = '320 x 240' ] || complain "README's first block prints '$size' for $clip"
  done
}

if [ $# -gt 0 ]; then
  doxygen "$1" || complain "the reference site has the warnings above"
  check_site "$(sed -n 's/^OUTPUT_DIRECTORY *= *//p' "$1")/html"
fi
[ $# -lt 3 ] || run_first_block "$2" "$3"
[ "$failures" -eq 0 ] || die "$failures findings stand above"
echo "docs: ${#pages[@]} pages, $links links and paths, ${#blocks[@]} C++ blocks"
