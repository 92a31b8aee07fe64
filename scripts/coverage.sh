#!/usr/bin/env bash
# Runs all tests in a build that counts what they reach, and prints per file and in all how many
# lines of the library they cover, and how many branches of the parsers. Fails below the limits.
# Kernels of instruction sets that this processor does not have are left out.
#
# usage: coverage.sh [FILE...]
#   FILE   also lists this file's lines that no test reaches
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

least_lines=95     # per cent of the library
least_branches=90  # per cent of the parsers

scripts/install-packages.sh test
build=$project/build/coverage
# Child processes write profiles too; those of one program are merged as they end.
export LLVM_PROFILE_FILE=$build/profiles/%4m.profraw
configure_and_build coverage
rm -rf "$build/profiles"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" >"$build/tests.log" ||
  { grep -vE ' Start |Passed ' "$build/tests.log" && die "tests failed in $build"; }
grep -E 'tests passed|Total Test time' "$build/tests.log"
llvm-profdata-14 merge -sparse "$build"/profiles/*.profraw -o "$build/tests.profdata" ||
  die "no profiles were written"

# The shared library holds every function of the library, and counts from the tests' static twin are
# added to its own: both are made of the same objects.
ignored=()
while IFS=: read -r isa state; do
  [[ $state == *supported* ]] || ignored+=("-ignore-filename-regex=_$isa\.cc$")
done < <("$build/tools/qxtools" isa)
cov() {
  local verb=$1
  shift
  llvm-cov-14 "$verb" "$build/libqxtools.so" -instr-profile="$build/tests.profdata" "${ignored[@]}" "$@"
}

cov export -summary-only >"$build/coverage.json"
for file in "$@"; do
  say "Lines not reached in $file"
  cov show | awk -v name="$file:" '/^[^ ].*:$/ {here = index($0, name) > 0} here && /^ +[0-9]+\| +0\|/'
done
python3 - "$project" "$least_lines" "$least_branches" <<'END' || die "below the limits"
import json, os, sys

project, least_lines, least_branches = sys.argv[1], float(sys.argv[2]), float(sys.argv[3])
build = os.path.join(project, "build", "coverage")
LIBRARY = ("include/", "qx_utils/", "vision/", "vitis/", "board/")
PARSERS = ("qx_utils/h264_h265_info_parse/",)
with open(os.path.join(build, "coverage.json")) as export:
    files = json.load(export)["data"][0]["files"]
summaries = {os.path.relpath(os.path.join(build, f["filename"]), project): f["summary"] for f in files}


def report(kind, folders, least):
    """Prints each file's share of `kind`, lines or branches; returns whether the total is enough."""
    print(f"\n== {kind} of {' '.join(folders)}")
    count = covered = 0
    for name, summary in sorted(summaries.items()):
        numbers = summary[kind]
        if not name.startswith(folders) or numbers["count"] == 0:
            continue
        count += numbers["count"]
        covered += numbers["covered"]
        missed = numbers["count"] - numbers["covered"]
        print(f"{name:56} {numbers['count']:6} {numbers['percent']:7.2f} %" + (f"  {missed} missed" if missed else ""))
    share = 100 * covered / count if count else 0
    print(f"{'all':56} {count:6} {share:7.2f} %  {count - covered} missed; wanted: {least:g} %")
    return share >= least


ok = [report("lines", LIBRARY, least_lines), report("branches", PARSERS, least_branches)]
sys.exit(not all(ok))
END
