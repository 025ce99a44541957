#!/usr/bin/env bash
# Formatting, static analysis, and the repository's own rules.
set -euo pipefail
jobs=${1:-2}
cd "$(dirname "$0")/.."
"$PWD/scripts/install_dependencies.sh" clang-format clang-tidy

git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror

# Subsystems know the platform layer, never what stands behind it.
if git grep -nE '#include <(boost|lib(av|yuv)|libyuv)' -- src ':!src/platform'; then
  echo "only src/platform may include Boost, libav or libyuv" >&2
  exit 1
fi
if git grep -nE '#include "(app|input|encode|stream|record|diag)/' -- client tools src/platform; then
  echo "client, tools and src/platform stand on their own" >&2
  exit 1
fi

cmake --preset debug >/dev/null
git ls-files 'src/*.cpp' 'client/*.cpp' 'tools/*.cpp' |
  xargs -P "$jobs" -n 4 clang-tidy -p build/debug --quiet
