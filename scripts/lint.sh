#!/usr/bin/env bash
# Checks the formatting, the includes between folders, the list of errors in docs/troubleshooting.md
# and the version of the Node package. Then runs clang-tidy, in as many processes as the first
# argument says.
set -euo pipefail
jobs=${1:-2}
cd "$(dirname "$0")/.."
scripts/install_dependencies.sh clang-format clang-tidy

git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror

scripts/check_rooms.sh
command -v node >/dev/null || scripts/install_dependencies.sh nodejs
node --test scripts/check_messages.mjs

version=$(sed -n 's/^project(lumora-video VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
for entry in '"version"' '"lumora-video-linux-x64"'; do
  grep -q "$entry: \"$version\"" client/node/package.json || {
    echo "client/node/package.json: $entry is not $version, the version in CMakeLists.txt" >&2
    exit 1
  }
done

cmake --preset debug >/dev/null
# The two macros defined here hide the bodies of most Asio and Beast functions. clang-tidy need not
# read them.
git ls-files 'src/*.cpp' 'client/*.cpp' 'tools/*.cpp' ':!client/example' |
  xargs -P "$jobs" -n 4 clang-tidy -p build/debug --quiet \
    --extra-arg=-DBOOST_ASIO_SEPARATE_COMPILATION --extra-arg=-DBOOST_BEAST_SEPARATE_COMPILATION
