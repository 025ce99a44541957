#!/usr/bin/env bash
# Builds the Debian packages in build/release/packages. Fails if lintian reports an error.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_dependencies.sh scdoc lintian dpkg-dev file
cmake --preset release >/dev/null
cmake --build --preset release -j "${1:-2}"
rm -rf build/release/packages
(cd build/release && cpack >/dev/null)
lintian --allow-root --fail-on error --tag-display-limit 0 build/release/packages/*.deb
ls -l build/release/packages
