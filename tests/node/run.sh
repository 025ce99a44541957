#!/usr/bin/env bash
# Builds and tests the Node client against the helper $1.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
package=$here/../../client/node
source "$here/../npm.sh"

installPackages "$package"
(cd "$package" && npm run --silent build && npm run --silent check)
# Node 18 has no limit to set.
limit=$(node --help | grep -q -e --test-timeout && echo --test-timeout=90000 || true)
LUMORA_VIDEO_PATH=$(realpath "$1") exec node --expose-gc --test $limit "$here"/*.test.mjs
