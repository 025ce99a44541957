#!/usr/bin/env bash
# Builds client/example/record.cpp and the README's example in a project that embeds the client
# library as a shared library. Then runs both.
#
#   tests/embedding/run.sh HELPER
set -euo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The README's example saves into $work instead of /videos. Its camera is in camera.h.
example=$(sed -n '/^```cpp$/,/^```$/{/^```/!p}' "$source/README.md" | sed "s|/videos/|$work/readme-|")
{
  cat "$source/tests/embedding/camera.h"
  grep -E '^(#include|using)' <<<"$example"
  echo 'int main() {'
  grep -vE '^(#include|using)' <<<"$example"
  echo '}'
} >"$work/readme.cpp"
cmake -S "$source/tests/embedding" -B "$work" -DBUILD_SHARED_LIBS=ON -DLUMORA_SOURCE="$source" >/dev/null
cmake --build "$work" -j 2 >/dev/null
readelf -d "$work/lumora/client/liblumora-client.so" | grep -E 'SONAME.*liblumora-client\.so\.[0-9]+\.[0-9]+\]'
# The application catches what the library throws.
status=0
said=$(LUMORA_VIDEO_PATH=/nowhere "$work/record" "$work" 2>&1) || status=$?
[ "$status" -eq 1 ]
grep -q 'there is no program at /nowhere' <<<"$said"
export LUMORA_VIDEO_PATH=$1
"$work/record" "$work"
"$work/readme"
for take in take readme-take; do
  ffmpeg -v error -xerror -nostdin -i "$work/$take.mp4" -f null -
done
