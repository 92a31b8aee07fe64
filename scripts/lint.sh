#!/usr/bin/env bash
# Checks format and lint of every C++ file; a file that passed is checked again only when it,
# a header or the rules have changed.
#
# usage: lint.sh      (build/dev must be configured: its compile commands are used)
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

mapfile -t files < <(find . -path ./build -prune -o -path ./.git -prune -o \
  \( -name '*.h' -o -name '*.cc' \) -printf '%P\n' | sort)
[ ${#files[@]} -gt 0 ] || die "no C++ files found"
"clang-format-$llvm" --dry-run -Werror "${files[@]}" || die "format: run clang-format-$llvm -i on the files above"

export llvm database=build/dev
[ -f "$database/compile_commands.json" ] || die "no $database/compile_commands.json; run: cmake --preset dev"
export stamps=$database/lint
mkdir -p "$stamps"
headers=$(printf '%s\n' "${files[@]}" | grep '\.h$' | xargs -d '\n' cat .clang-tidy scripts/lint.sh | sha256sum)
pending=()
for file in "${files[@]}"; do
  [[ $file == *.cc ]] && grep -qF "$project/$file\"" "$database/compile_commands.json" || continue
  key=$(printf '%s' "$headers" | cat - "$file" | sha256sum | cut -c1-32)
  [ -f "$stamps/$key" ] || pending+=("$file:$key")
done

# The commands are GCC's: Clang does not know all of its warnings.
check() {
  local file=${1%:*} key=${1##*:} findings
  if findings=$("clang-tidy-$llvm" -p "$database" --quiet --extra-arg=-Wno-unknown-warning-option "$file" 2>&1); then
    touch "$stamps/$key"
  else
    printf '%s\n' "$findings"
    return 1
  fi
}
export -f check
if [ ${#pending[@]} -gt 0 ]; then
  printf '%s\0' "${pending[@]}" | xargs -0 -P "$(nproc)" -I{} bash -c 'check {}' ||
    die "lint: see the findings above"
fi
echo "format and lint: ${#files[@]} files clean (${#pending[@]} checked by clang-tidy now)"
