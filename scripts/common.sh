# Sourced by the other scripts: the project's directory and shared functions.
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$project"

llvm=14  # version of Clang and its tools; CMakePresets.json has it as well

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

# unpack_root DIRECTORY SUITE MMDEBSTRAP-OPTION...: creates a Debian root, and DIRECTORY.log.
# Returns: 77 if the mirror no longer serves the suite, with the reason on standard output.
unpack_root() {
  local root=$1 suite=$2 log=$1.log
  shift 2
  rm -rf "$root"
  mkdir -p "$(dirname "$root")"
  mmdebstrap --mode=root "$@" "$suite" "$root" "deb $(debian_mirror) $suite main" >"$log" 2>&1 && return
  grep '^E:' "$log" | cut -c1-300
  grep -qE '^E: (The repository|Failed to fetch)' "$log" || die "cannot unpack $suite; see $log"
  return 77
}

# Debian 11 has no CLI11. It consists of headers only, so this system's package works in any root.
unpack_cli11() {
  (cd "$1/.." && rm -f libcli11-dev_*.deb && apt-get download -q libcli11-dev >/dev/null &&
    dpkg-deb -x libcli11-dev_*.deb "$1") || die "cannot download libcli11-dev"
}

# The address of the package mirror that this machine uses.
debian_mirror() {
  sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n 1 | grep . ||
    sed -n 's/^deb \(\[[^]]*\] \)\?\([^ ]*\) .*/\2/p' /etc/apt/sources.list | head -n 1 | grep . ||
    die "no package source found below /etc/apt"
}
