#!/usr/bin/env bash
# Compares the binary interface with the committed one in tests/project/abi/: the names that leave the
# shared library (symbols.txt), and the slot and member order of the public classes (layout.txt).
#
# usage: check-abi.sh LIBRARY [--update]
#   --update   writes the committed lists anew; docs/abi.md says when that is right
. "$(dirname "${BASH_SOURCE[0]}")/../../scripts/common.sh"

abi=tests/project/abi
library=${1:?usage: check-abi.sh LIBRARY [--update]}
update=${2-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

nm -D --defined-only "$library" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | c++filt | LC_ALL=C sort >"$work/symbols.txt"
[ "$(wc -l <"$work/symbols.txt")" -gt 10 ] || die "$library exports next to nothing: was it built?"
if foreign=$(grep -vE '^((vtable|typeinfo|typeinfo name) for )?(qx|velkar)::' "$work/symbols.txt"); then
  printf '%s\n' "$foreign" >&2
  die "names of others leave the library; they stand above"
fi

# Every class of the public headers is on the list.
for class in $(sed -nE 's/^(class|struct) (QXTOOLS_EXPORT )?(\w+)( : .*)? \{$/\3/p' include/qxtools/*.h); do
  grep -qE "^ABI_CLASS\((\w+::)+$class(<float>)?\)$" $abi/classes.inc || die "$class is missing in $abi/classes.inc"
done

# One translation unit that sees every public header and asks for every class's layout.
for header in include/qxtools/*.h; do echo "#include \"qxtools/$(basename "$header")\""; done >"$work/all.cc"
cat $abi/classes.inc >>"$work/all.cc"
clang++-14 -std=c++17 -Iinclude -O0 -c -o /dev/null -Xclang -fdump-record-layouts \
  -Xclang -fdump-vtable-layouts "$work/all.cc" >"$work/dump.txt" 2>"$work/errors.txt" ||
  { cat "$work/errors.txt" >&2; die "the public headers do not compile"; }
awk 'BEGIN {RS = ""; ORS = "\n\n"} /^\*\*\* Dumping AST Record Layout\n *0 \| (class|struct) (qx|velkar)::/ ||
     /^VTable indices for .(qx|velkar)::/ {print}' "$work/dump.txt" |
  # what the standard library keeps inside its own classes is not our interface
  grep -vE 'Dumping AST|_M_|_Alloc_hider|std::(allocator|__new_allocator)|anonymous at|__shared_ptr' >"$work/layout.txt"
for class in $(sed -n 's/^ABI_CLASS(\(.*\))$/\1/p' $abi/classes.inc); do
  grep -qF "$class" "$work/layout.txt" || die "no layout found for $class"
done

status=0
for list in symbols layout; do
  if [ "$update" = --update ]; then
    cp "$work/$list.txt" "$abi/$list.txt"
  elif ! diff -u --label "committed $list" --label "this build" "$abi/$list.txt" "$work/$list.txt"; then
    status=1
  fi
done
[ "$status" -eq 0 ] || die "the binary interface changed; docs/abi.md says what that means"
echo "abi: $(wc -l <"$work/symbols.txt") symbols and the layouts of $(grep -c '^ABI_CLASS' $abi/classes.inc) classes as committed"
