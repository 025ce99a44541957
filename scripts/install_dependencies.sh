#!/usr/bin/env bash
# Installs missing Debian packages. Prints nothing if none is missing. Arguments are the names of further
# packages.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache
  libboost-dev libavcodec-dev libavformat-dev libavutil-dev libswresample-dev
  libyuv-dev libhwy-dev libjpeg-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  ffmpeg
  "$@"
)

native=$(dpkg --print-architecture)
missing=()
for package in "${packages[@]}"; do
  # The package may be there for several architectures, with a line for each.
  dpkg-query -W -f='${db:Status-Status} ${Architecture}\n' "$package" 2>/dev/null |
    grep -qxE "installed ($native|all)" ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "Installing ${missing[*]}"
# sudo removes other variables of the environment.
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
