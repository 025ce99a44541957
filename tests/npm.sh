#!/usr/bin/env bash
# For tests that need npm, sourced by them. What a machine lacks skips a test (77); in CI, which
# must not pass by skipping, it fails it.
set -euo pipefail
tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
client=$tests/../client/node

giveUp() {
  echo "can't run: $1"
  [ "${CI:-}" = true ] && exit 1
  exit 77
}

# Installs the packages of the folder $1.
installPackages() {
  command -v npm >/dev/null || giveUp "needs npm"
  # What npm writes last; older than the list of packages means that the list has changed since.
  if [ ! "$1/node_modules/.package-lock.json" -nt "$1/package-lock.json" ]; then
    (cd "$1" && npm ci --no-audit --no-fund --silent) || giveUp "the packages can't be installed"
  fi
}

buildClient() {
  installPackages "$client"
  (cd "$client" && npm run --silent build)
}
