#!/usr/bin/env bash
# package.sh: builds the Debian packages (dpkg-buildpackage) from a copy of the
# source tree in build/deb, unpacks them into a throw-away root and builds and
# runs the examples against that root with pkg-config and find_package(tovi).
# The copy keeps the build's paths stable, so ccache serves the next run.
set -euo pipefail
cd "$(dirname "$0")/.."

out=$PWD/build/deb
rm -rf "$out/src" "$out/root" "$out/examples" "$out"/*.deb "$out"/*.buildinfo "$out"/*.changes
mkdir -p "$out/src" "$out/root"
tar --exclude=./build --exclude=./.deps --exclude=./.git -cf - . | tar -xf - -C "$out/src"

if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$out
fi
(cd "$out/src" && DEB_BUILD_OPTIONS="nocheck noddebs parallel=2" DEB_BUILD_PROFILES=nocheck dpkg-buildpackage -us -uc -b >"$out/build.log" 2>&1) || {
    tail -40 "$out/build.log"
    echo "package: dpkg-buildpackage failed (whole log: $out/build.log)" >&2
    exit 1
}
for deb in "$out"/*.deb; do
    dpkg-deb -x "$deb" "$out/root"
done
echo "package: built $(cd "$out" && echo *.deb)"
# The reference and the manual pages are in the packages.
for f in share/doc/libtovi-dev/html/index.html share/man/man7/libtovi.7.gz share/man/man1/tovictl.1.gz; do
    [ -f "$out/root/usr/$f" ] || { echo "package: /usr/$f is in no package" >&2; exit 1; }
done
# An application's test links libtovi-testkit with the libraries its .pc file
# names: libtovi-dev depends on the package of each one's development link,
# and the package build asks for it (the C and C++ run-times aside).
depends=$(dpkg-deb -f "$out"/libtovi-dev_*.deb Depends)
builddeps=$(sed -n '/^Build-Depends:/,/^[A-Z][A-Za-z-]*: /p' debian/control)
for lib in $(sed -n 's/^Libs: //p' "$out"/root/usr/lib/*/pkgconfig/libtovi-testkit.pc | grep -o -- '-l[^ ]*' | cut -c3-); do
    owner=$(dpkg -S "$(realpath -s "$(cc -print-file-name="lib$lib.so")")" 2>/dev/null | cut -d: -f1) || continue
    case $owner in libstdc++-*-dev) continue ;; esac
    for field in "$depends" "$builddeps"; do
        grep -Eq "(^|[ ,])$owner([ ,(]|\$)" <<<"$field" ||
            { echo "package: -l$lib needs $owner, missing in libtovi-dev's Depends or Build-Depends" >&2; exit 1; }
    done
done
examples/check.sh "$out/root/usr"
# The examples libtovi-dev ships build as they are, from their own folder.
cmake -S "$out"/root/usr/share/doc/libtovi-dev/examples -B "$out/examples" -DCMAKE_PREFIX_PATH="$out/root/usr" >/dev/null
cmake --build "$out/examples" >/dev/null
