#!/usr/bin/env bash
# Builds for 64-bit Arm in a minimal Debian 12 made for it, with Debian's cross compiler, and runs the
# unit tests, a preview and takes under qemu-user. The packages lie in build/arm64/packages afterwards.
# Needs root and half an hour.
set -euo pipefail
cd "$(dirname "$0")/.."
SUITE=bookworm KEEP=build/arm64/packages KEEP_TO=arm64 scripts/fresh.sh scripts/arm64_inside.sh
