#!/usr/bin/env bash
# Builds and tests the Node client against the helper $1.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
package=$here/../../client/node
page=$here/../../tools/viewer/page
source "$here/../npm.sh"

installPackages "$package"
(cd "$package" && npm run --silent build && npm run --silent check)

# The viewer's page has modules that are compiled from the client's sources.
compiled=$(mktemp -d)
trap 'rm -r "$compiled"' EXIT
(cd "$package" && npm run --silent page -- --outDir "$compiled")
for module in "$compiled"/*; do
  diff "$page" "$module" || { echo "run \"npm run page\" in client/node"; exit 1; }
done

# Node 18 does not have this option.
limit=$(node --help | grep -q -e --test-timeout && echo --test-timeout=90000 || true)
LUMORA_VIDEO_PATH=$(realpath "$1") node --expose-gc --test $limit "$here"/*.test.mjs
