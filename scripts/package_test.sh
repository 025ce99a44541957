#!/usr/bin/env bash
# Builds the Debian packages for a release (SUITE) in a minimal Debian of that release, and tries them
# in another one, as a new user would: see scripts/try_packages.sh. Needs root and some minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
export SUITE=${SUITE:-bookworm}
rm -rf "build/$SUITE/packages"
KEEP=build/release/packages scripts/fresh.sh "make package"
scripts/fresh.sh scripts/try_packages.sh
