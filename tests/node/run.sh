#!/usr/bin/env bash
# Builds and tests the Node client against the helper $1.
source "$(dirname "$0")/../npm.sh"

buildClient
(cd "$client" && npm run --silent check)

# "npm run page" makes some modules of the viewer's page from the client's sources. The modules in
# tools/viewer/page must equal its output.
(cd "$client" && npm run --silent page -- --outDir dist/page)
for module in "$client"/dist/page/*; do diff "$tests/../tools/viewer/page" "$module"; done

# Node 18 does not have this option.
limit=$(node --help | grep -e --test-timeout >/dev/null && echo --test-timeout=90000 || true)
LUMORA_VIDEO_PATH=$(realpath "$1") node --expose-gc --test $limit "$tests"/node/*.test.mjs
