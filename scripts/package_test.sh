#!/usr/bin/env bash
# Builds the Debian packages, has lintian look at them, installs them into a minimal Debian 12 made for
# it, and there does what a new user would: runs the demo, and builds and runs the client library's
# example, through CMake and through pkg-config. Needs root and some minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "$(id -u)" -ne 0 ]; then
  echo "make package-test needs root: it makes a root file system" >&2
  exit 1
fi
scripts/package.sh "${1:-2}"
scripts/install_dependencies.sh mmdebstrap

root=$(mktemp -d "${TMPDIR:-/tmp}/lumora-package.XXXXXX")
trap 'rm -rf --one-file-system "$root"' EXIT
echo "== A minimal Debian 12 in $root"
mmdebstrap --quiet --variant=minbase --include=ffmpeg,g++,cmake,make,pkg-config bookworm "$root"
mkdir -p "$root/packages" "$root/example"
cp build/release/packages/*.deb "$root/packages"
cp client/example/* "$root/example"
cp /etc/resolv.conf "$root/etc/"

inside() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 chroot "$root" bash -euc "$1"; }
echo "== Install"
inside "apt-get install -y -qq --no-install-recommends /packages/*.deb >/dev/null"
inside "lumora-video; test \$? -eq 1" 2>&1 | grep -q 'invalid helper configuration'
echo "== Demo"
inside "lumora-demo /usr/bin/lumora-video /tmp/demo 3 | tail -4"
echo "== The example, through CMake and through pkg-config"
inside "cmake -S /example -B /tmp/cmake >/dev/null && cmake --build /tmp/cmake >/dev/null
        mkdir /tmp/one && /tmp/cmake/record /tmp/one
        g++ -std=c++20 /example/record.cpp \$(pkg-config --cflags --libs lumora-client) -o /tmp/record
        mkdir /tmp/two && /tmp/record /tmp/two
        for take in /tmp/one/take.mp4 /tmp/two/take.mp4; do
          ffmpeg -v error -xerror -nostdin -i \$take -f null -
        done"
echo "== Packages work"
