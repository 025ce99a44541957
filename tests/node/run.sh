#!/usr/bin/env bash
# Builds and tests the Node client against the helper $1.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
package=$here/../../client/node
source "$here/../npm.sh"

installPackages "$package"
(cd "$package" && npm run --silent build && npm run --silent check)
LUMORA_VIDEO_PATH=$(realpath "$1") exec node --test "$here"/*.test.mjs
