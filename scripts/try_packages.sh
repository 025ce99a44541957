#!/usr/bin/env bash
# Inside the machine that scripts/fresh.sh makes: installs the packages that were built outside, runs
# the demo, builds the client library's example through CMake and through pkg-config, and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
packages=(/origin/build/release/packages/*.deb)
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${packages[@]}" ffmpeg g++ cmake pkg-config >/dev/null

(lumora-video || true) | grep 'invalid helper configuration'
lumora-demo /usr/bin/lumora-video /tmp/demo 3 | tail -n 4

example=/usr/share/doc/liblumora-client-dev/record.cpp
cmake -S client/example -B /tmp/cmake >/dev/null
cmake --build /tmp/cmake >/dev/null
g++ -std=c++20 "$example" $(pkg-config --cflags --libs lumora-client) -o /tmp/record
for program in /tmp/cmake/record /tmp/record; do
  folder=$(mktemp -d)
  "$program" "$folder"
  ffmpeg -v error -xerror -nostdin -i "$folder/take.mp4" -f null -
done
echo "The packages work"
