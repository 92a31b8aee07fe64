#!/usr/bin/env bash
# Builds the Debian packages libqxtools1, libqxtools-dev and qxtools into build/packages and checks
# them with lintian.
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

scripts/install-packages.sh demo package

say "Build"
folder=build/packages
mkdir -p "$folder"
version=$(sed -n 's/^project(qxtools VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || die "no version found in CMakeLists.txt"
packaging/changelog.py CHANGELOG.md "$version" | gzip -9n >"$folder/changelog.gz"
cmake -S . -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" \
  -DQXTOOLS_BUILD_TESTS=OFF -DQXTOOLS_CHANGELOG="$project/$folder/changelog.gz" \
  -DQXTOOLS_DEBIAN=ON \
  -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CPPFLAGS)" \
  -DCMAKE_SHARED_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS) -Wl,-z,now" \
  -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS) -Wl,-z,now" >/dev/null
cmake --build "$folder"

say "Package"
rm -f "$folder"/*.deb
(cd "$folder" && umask 022 && cpack)
lintian --fail-on error,warning --tag-display-limit 0 "$folder"/*.deb
ls -l "$folder"/*.deb
