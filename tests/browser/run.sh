#!/usr/bin/env bash
# Runs a browser test: run.sh TEST ARGUMENTS...; the test gets Chromium as its last argument.
source "$(dirname "$0")/../npm.sh"

chromium=$(command -v chromium || command -v google-chrome || true)
[ -n "$chromium" ] || giveUp "needs chromium"
installPackages "$tests/browser"
[ "$1" = view_test.mjs ] || buildClient
exec node "$tests/browser/$1" "${@:2}" "$chromium"
