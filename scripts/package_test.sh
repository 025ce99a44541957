#!/usr/bin/env bash
# Builds the Debian packages in a new minimal Debian of the release SUITE, and tests them in another one, as
# a new user would: see scripts/try_packages.sh. Needs root and some minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
export SUITE=${SUITE:-bookworm}
rm -rf "build/$SUITE/packages"
KEEP=build/release/packages scripts/fresh.sh "make package"
scripts/fresh.sh scripts/try_packages.sh
