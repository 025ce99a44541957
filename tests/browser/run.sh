#!/usr/bin/env bash
# Runs a browser test: run.sh TEST ARGUMENTS... Where there is no Chromium or no npm registry it ends with 77 ("skipped");
# in CI, which must not pass by skipping, with 1.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

giveUp() {
  if [ "${CI:-}" = true ]; then
    echo "failed: $1"
    exit 1
  fi
  echo "skipped: $1"
  exit 77
}

chromium=$(command -v chromium || command -v google-chrome || true)
[ -n "$chromium" ] || giveUp "needs chromium"
command -v npm >/dev/null || giveUp "needs npm"
# What npm writes last; older than the list of packages means that the list has changed since.
if [ ! "$here/node_modules/.package-lock.json" -nt "$here/package-lock.json" ]; then
  (cd "$here" && npm ci --no-audit --no-fund --silent) || giveUp "the packages can't be installed"
fi
exec node "$here/$1" "${@:2}" "$chromium"
