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

# The address of the package mirror that this machine uses.
debian_mirror() {
  sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n 1 | grep . ||
    sed -n 's/^deb \(\[[^]]*\] \)\?\([^ ]*\) .*/\2/p' /etc/apt/sources.list | head -n 1 | grep . ||
    die "no package source found below /etc/apt"
}
