# Sourced by the other scripts: where the project is, and how they speak.
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$project"

say() { printf '\n== %s\n' "$*"; }

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# configure_and_build PRESET [TARGET...]: quick when nothing changed.
configure_and_build() {
  local preset=$1
  shift
  cmake --preset "$preset" >/dev/null || die "configuring '$preset' failed; run: cmake --preset $preset"
  if [ $# -gt 0 ]; then
    cmake --build --preset "$preset" --target "$@"
  else
    cmake --build --preset "$preset"
  fi
}
