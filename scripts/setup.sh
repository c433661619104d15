#!/usr/bin/env bash
# Installs everything the build, the tests and the benchmarks need on a
# Debian 12 machine. Idempotent: quick when everything is present.
set -euo pipefail

cd "$(dirname "$0")/.."

native=(cmake g++ gcc pkg-config make clang libclang-rt-14-dev
        libsafec-dev libisal-dev libgtest-dev libgmock-dev libbenchmark-dev
        libasan8 libubsan1 libtsan2
        libck-dev dpdk-dev libglib2.0-dev libuv1-dev libinih-dev libiniparser-dev gcovr
        libssl-dev libcap-dev libmxml-dev
        iproute2 net-tools tzdata
        debhelper dpkg-dev doxygen)
# The aarch64 build runs under qemu-aarch64 against Debian's arm64 multiarch
# C library; libcrypto, libcap and Mini-XML are multiarch too (installed
# beside the native packages, same version).
cross=(gcc-aarch64-linux-gnu g++-aarch64-linux-gnu qemu-user
       libc6:arm64 libstdc++6:arm64 libgcc-s1:arm64 libsafec-dev:arm64 libgtest-dev:arm64
       libssl-dev:arm64 libcap-dev:arm64 libmxml-dev:arm64)

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

missing=()
for p in "${native[@]}" "${cross[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        as_root dpkg --add-architecture arm64
    fi
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# ISA-L cannot be installed for arm64 beside the native package: unpack its
# arm64 packages into the cross build's sysroot folder.
sysroot=.deps/arm64
if [ ! -e "$sysroot/usr/include/isa-l/crc.h" ]; then
    echo "setup: unpacking the arm64 ISA-L into $sysroot"
    tmp=$(mktemp -d)
    (cd "$tmp" && apt-get download -qq libisal-dev:arm64 libisal2:arm64 >/dev/null 2>&1) || {
        as_root apt-get update -qq
        (cd "$tmp" && apt-get download -qq libisal-dev:arm64 libisal2:arm64 >/dev/null)
    }
    mkdir -p "$sysroot"
    for deb in "$tmp"/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
    rm -rf "$tmp"
fi
echo "setup: ready"
