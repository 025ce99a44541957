#!/usr/bin/env bash
# Runs the browser test; ends with 77 ("skipped") where there is no Chromium or no npm registry.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
chromium=$(command -v chromium || command -v google-chrome || true)
if [ -z "$chromium" ] || ! command -v npm >/dev/null; then
  echo "skipped: needs chromium and npm"
  exit 77
fi
if [ ! -d "$here/node_modules" ] && ! (cd "$here" && npm ci --no-audit --no-fund --silent); then
  echo "skipped: the packages can't be installed"
  exit 77
fi
exec node "$here/take_test.mjs" "$1" "$2" "$chromium"
