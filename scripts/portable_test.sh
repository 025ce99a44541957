#!/usr/bin/env bash
# Tests the packages of scripts/portable.sh in two ways. scripts/try_portable.sh uses them as a new user
# would, in a new minimal Debian of SUITE without FFmpeg. scripts/portable_e2e.sh runs the end-to-end tests
# on this machine, with the helper inside such a Debian. Needs root and some minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
export SUITE=${SUITE:-bookworm}
ls build/portable/packages/*.tar.gz >/dev/null || { echo "run make portable first" >&2; exit 1; }
tar -xzf build/portable/packages/*.tar.gz -C build/portable --strip-components=1
npm=(); command -v npm >/dev/null || npm=(nodejs npm)
scripts/install_dependencies.sh "${npm[@]}"
rm -f build/portable/packages/lumora-video-client-*.tgz
(cd client/node && npm ci --silent && npm pack --silent --pack-destination ../../build/portable/packages)

KEEP=build/takes scripts/fresh.sh scripts/try_portable.sh
ffmpeg -v error -xerror -nostdin -i "build/$SUITE/takes/take.mp4" \
  -fps_mode passthrough -enc_time_base -1 -f null -

cmake --preset release >/dev/null
cmake --build --preset release -j "${1:-2}" -t lumora-e2e-tests
scripts/portable_e2e.sh
