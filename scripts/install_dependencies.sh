#!/usr/bin/env bash
# Installs the Debian packages that are listed here or named by the arguments, unless they are
# installed already. Prints nothing if none is missing.
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
  # dpkg-query prints a line for each architecture of the package.
  dpkg-query -W -f='${db:Status-Status} ${Architecture}\n' "$package" 2>/dev/null |
    grep -qxE "installed ($native|all)" ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "Installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
# sudo clears most of the environment, so `env` sets the variable for apt-get.
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
