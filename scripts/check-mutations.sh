#!/usr/bin/env bash
# Puts small faults into a copy of the sources, one at a time, and reports which of them the tests
# notice. tests/mutations/faults.txt lists the faults and the tests that each is shown to.
#
# usage: check-mutations.sh [TEXT]
#   TEXT   only faults of files whose path holds TEXT
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

list=tests/mutations/faults.txt
limit=120        # seconds for one test program; a fault may hang it
most_survivors=2
only=${1-}
copy=$project/build/mutations
build=$copy/build/dev
results=$copy/build/results.txt

scripts/install-packages.sh test
mkdir -p "$build"
: >"$results"

say "Copy, build and test without faults"
# Only what differs is written, so that a second run builds little.
find . \( -path ./build -o -path ./.git -o -path ./.cache \) -prune -o -type f -print0 |
  while IFS= read -r -d '' file; do
    cmp -s "$file" "$copy/$file" && continue
    mkdir -p "$copy/$(dirname "$file")"
    cp "$file" "$copy/$file"
  done
# The folders lie to each other as they do in the project, so that a compiler cache knows the files.
cmake -S "$copy" --preset dev -DQXTOOLS_BUILD_BENCH=OFF -DQXTOOLS_CLIPS_DIR="$project/build/clips" \
  >"$build/configure.log" || die "configuring failed; see $build/configure.log"
samples/make-clips.sh build/clips >"$build/clips.log" || die "no test clips; see $build/clips.log"

build_tests() { cmake --build "$build" --target "$@" >"$build/build.log" 2>&1; }
passes() {
  # The braces keep the shell from reporting programs that a fault has crashed.
  { GTEST_DEATH_TEST_STYLE=threadsafe GTEST_FAIL_FAST=1 timeout "$limit" "$build/tests/$1" \
    >"$build/test.log"; } 2>/dev/null
}

mapfile -t tests < <(sed -nE 's/^\[.*: (.*)\]$/\1/p' "$list" | tr ' ' '\n' | sort -u)
[ ${#tests[@]} -gt 0 ] || die "$list names no tests"
build_tests "${tests[@]}" || die "the sources do not build; see $build/build.log"
for test in "${tests[@]}"; do
  passes "$test" || passes "$test" || die "$test fails without any fault; see $build/test.log"
done

# try_fault FILE TEXT REPLACEMENT TEST...: prints and notes what became of it.
try_fault() {
  local file=$1 text=$2 replacement=$3 original verdict=SURVIVED
  shift 3
  original=$(cat "$project/$file"; echo .)
  original=${original%.}
  local rest=${original#*"$text"}
  [ "$rest" != "$original" ] || die "$list: $file does not hold: $text"
  [[ $rest != *"$text"* ]] || die "$list: $file holds this more than once: $text"
  printf '%s' "${original/"$text"/"$replacement"}" >"$copy/$file"
  if ! build_tests "$@"; then
    verdict='DOES NOT BUILD'
  else
    for test in "$@"; do
      passes "$test" || { verdict="caught by $test" && break; }
    done
  fi
  printf '%s' "$original" >"$copy/$file"
  printf '%-36s %s: %s => %s\n' "$verdict" "$file" "$text" "$replacement" | tee -a "$results"
}

say "One fault at a time"
file=
while IFS= read -r line; do
  case $line in
    '' | '#'*) ;;
    '['*': '*']')
      line=${line:1:-1}
      file=${line%%: *}
      read -ra programs <<<"${line#*: }"
      ;;
    *' => '*)
      [ -n "$file" ] || die "$list: no file stands above: $line"
      [[ $file == *"$only"* ]] || continue
      try_fault "$file" "${line%% => *}" "${line#* => }" "${programs[@]}" </dev/null
      ;;
    *) die "$list: neither a file nor a fault: $line" ;;
  esac
done <"$list"

count() { grep -c "^$1" "$results" || true; }
total=$(count '')
survivors=$(count SURVIVED)
say "$(count caught) of $total faults caught, $survivors survived"
[ "$total" -gt 0 ] || die "no fault was tried"
[ "$(count 'DOES NOT BUILD')" -eq 0 ] || die "a fault that does not build shows nothing"
[ "$survivors" -le "$most_survivors" ] || die "more than $most_survivors survived; they stand in $results"
