#!/usr/bin/env bash
# Runs a browser test: run.sh TEST ARGUMENTS...; the test gets Chromium as its last argument.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../npm.sh"

chromium=$(command -v chromium || command -v google-chrome || true)
[ -n "$chromium" ] || giveUp "needs chromium"
installPackages "$here"
if [ "$1" = take_test.mjs ]; then
  client=$here/../../client/node
  installPackages "$client"
  (cd "$client" && npm run --silent build)
fi
exec node "$here/$1" "${@:2}" "$chromium"
