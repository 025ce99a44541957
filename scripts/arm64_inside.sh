#!/usr/bin/env bash
# Runs inside the system that scripts/fresh.sh makes: see scripts/arm64.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
export DEBIAN_FRONTEND=noninteractive
dpkg --add-architecture arm64
apt-get update -qq
apt-get install -y -qq --no-install-recommends crossbuild-essential-arm64 qemu-user cmake ninja-build \
  pkg-config ffmpeg scdoc file dpkg-dev libboost-dev nlohmann-json3-dev \
  libavcodec-dev:arm64 libavformat-dev:arm64 libavutil-dev:arm64 libswresample-dev:arm64 \
  libyuv-dev:arm64 libhwy-dev:arm64 libjpeg-dev:arm64 \
  libgtest-dev:arm64 libgmock-dev:arm64 libbenchmark-dev:arm64 >/dev/null

cmake --preset arm64
cmake --build --preset arm64 -j "$(nproc)"

emulator=(qemu-aarch64 -cpu cortex-a76)
# A death test starts its own program again, but without the emulator, so it would fail.
"${emulator[@]}" build/arm64/tests/lumora-unit-tests --gtest_filter='-*DeathTest.*'

# The tests start the helper as a program, so it needs a wrapper that starts the emulator.
helper=$PWD/build/arm64/lumora-video-emulated
printf '#!/bin/sh\nexec %s %s "$@"\n' "${emulator[*]}" "$PWD/build/arm64/src/lumora-video" >"$helper"
chmod +x "$helper"
LUMORA_HELPER=$helper "${emulator[@]}" build/arm64/tests/lumora-e2e-tests --gtest_filter='Preview.*:Recording.*'

(cd build/arm64 && cpack)
ls -l build/arm64/packages
