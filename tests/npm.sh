#!/usr/bin/env bash
# Sourced by tests that need npm. If the machine lacks what a test needs, the test exits with 77,
# which ctest counts as skipped. In CI the test fails instead.
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
  # An installation writes .package-lock.json last. If that file is missing or is older than
  # package-lock.json, the packages must be installed.
  if [ ! "$1/node_modules/.package-lock.json" -nt "$1/package-lock.json" ]; then
    (cd "$1" && npm ci --no-audit --no-fund --silent) || giveUp "the packages can't be installed"
  fi
}

buildClient() {
  installPackages "$client"
  (cd "$client" && npm run --silent build)
}
