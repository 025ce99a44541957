#!/usr/bin/env bash
# Builds the Debian packages and tries them in a minimal Debian 12 made for it, as a new user would:
# see scripts/try_packages.sh. Needs root and some minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/package.sh "${1:-2}"
scripts/fresh.sh scripts/try_packages.sh
