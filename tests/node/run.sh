#!/usr/bin/env bash
# Builds and tests the Node client against the helper $1. Where there is no Node or no npm registry it
# ends with 77 ("skipped"); in CI, which must not pass by skipping, with 1.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
package=$here/../../client/node

giveUp() {
  if [ "${CI:-}" = true ]; then
    echo "failed: $1"
    exit 1
  fi
  echo "skipped: $1"
  exit 77
}

command -v npm >/dev/null || giveUp "needs npm"
cd "$package"
# What npm writes last; older than the list of packages means that the list has changed since.
if [ ! node_modules/.package-lock.json -nt package-lock.json ]; then
  npm ci --no-audit --no-fund --silent || giveUp "the packages can't be installed"
fi
npm run --silent build
npm run --silent check
LUMORA_VIDEO_PATH=$(realpath "$1") exec node --test "$here"/*.test.mjs
