#!/usr/bin/env bash
# Builds the Debian packages in a new minimal Debian of the release SUITE. Then uses them as a new
# user would, in a second minimal Debian: see scripts/try_packages.sh. Needs root and some minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
export SUITE=${SUITE:-bookworm}
rm -rf "build/$SUITE/packages"
KEEP=build/release/packages scripts/fresh.sh "make package"
scripts/fresh.sh scripts/try_packages.sh
