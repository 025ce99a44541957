#!/usr/bin/env bash
# Builds for 64-bit Arm in a new minimal Debian 12, with Debian's cross compiler. Runs the unit tests, and the
# preview and recording tests, under qemu-user. Leaves the packages in build/arm64/packages. Needs root and half an hour.
set -euo pipefail
cd "$(dirname "$0")/.."
SUITE=bookworm KEEP=build/arm64/packages KEEP_TO=arm64 scripts/fresh.sh scripts/arm64_inside.sh
