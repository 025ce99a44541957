#!/usr/bin/env bash
# Runs inside the system that scripts/fresh.sh makes. Installs the packages that were built outside and runs the
# demo. Builds the example of the client library with CMake and with pkg-config. Packs the Node client and
# installs it into an application. Runs both builds of the example, and the application.
set -euo pipefail
cd "$(dirname "$0")/.."
packages=("/origin/build/$SUITE/packages/"*.deb)
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${packages[@]}" ffmpeg g++ cmake pkg-config nodejs npm >/dev/null

(lumora-video || true) | grep 'invalid helper configuration'
lumora-demo /usr/bin/lumora-video /tmp/demo 3 | tail -n 4
lumora-recover /tmp/demo

# Builds the example with the commands in the installed documentation.
grep -E '^    (cmake -S /usr|g\+\+ )' /usr/share/doc/lumora-video/embedding.md | bash -e >/dev/null

(cd client/node && npm ci --silent && npm pack --silent --pack-destination /tmp)
mkdir /tmp/application
cp client/node/example/record.mjs /tmp/application
(cd /tmp/application && npm init --yes >/dev/null && npm install --silent /tmp/lumora-video-client-*.tgz)

for program in /tmp/record/record /tmp/camera "node /tmp/application/record.mjs"; do
  folder=$(mktemp -d)
  $program "$folder"
  ffmpeg -v error -xerror -nostdin -i "$folder/take.mp4" -fps_mode passthrough -enc_time_base -1 -f null -
done
echo "The packages work"
