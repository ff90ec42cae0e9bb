#!/usr/bin/env bash
# Installs the Debian packages the build and tests need, and only those that are missing.
# With --bench it adds what the benchmarks compare against (OpenVDB's volume renderer); the
# build and the tests never need those.
set -euo pipefail

PACKAGES=(
    cmake ninja-build pkg-config g++ clang libclang-rt-14-dev python3
    libgtest-dev libgmock-dev libbenchmark-dev
    zlib1g-dev libdeflate-dev libzstd-dev libpng-dev libopenexr-dev libimath-dev
    libopenvdb-dev libboost-iostreams-dev libtbb-dev libhdf5-dev nlohmann-json3-dev
)
BENCH_PACKAGES=(libfftw3-dev libvtk9-dev)

for arg in "$@"; do
    case "$arg" in
        --bench) PACKAGES+=("${BENCH_PACKAGES[@]+"${BENCH_PACKAGES[@]}"}") ;;
        *)
            echo "usage: $0 [--bench]" >&2
            exit 2
            ;;
    esac
done

missing=()
for p in "${PACKAGES[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if [[ ${#missing[@]} -eq 0 ]]; then
    exit 0
fi

echo "setup-deps: installing ${missing[*]}" >&2
SUDO=""
if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get -o DPkg::Lock::Timeout=600 update -q
$SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -q --no-install-recommends "${missing[@]}"
