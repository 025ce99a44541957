#!/usr/bin/env bash
# Runs inside the system that scripts/fresh.sh makes, which has no FFmpeg. Uses the packages of
# build/portable as a new user would. Runs the programs of the archive, and installs the npm
# packages into an application, which records a take.
set -euo pipefail
packages=/origin/build/portable/packages
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends nodejs npm >/dev/null
for program in ffmpeg lumora-video; do
  if command -v "$program"; then echo "the test needs a system without $program" >&2; exit 1; fi
done

mkdir /tmp/application /tmp/takes
tar -xzf "$packages"/lumora-video-*-linux-x64.tar.gz -C /tmp
(/tmp/lumora-video-*-linux-x64/lumora-video || true) | grep 'invalid helper configuration'
/tmp/lumora-video-*-linux-x64/lumora-recover /tmp/takes

cp client/node/example/record.mjs /tmp/application
cd /tmp/application
npm init --yes >/dev/null
npm install --silent "$packages"/lumora-video-client-*.tgz "$packages"/lumora-video-linux-x64-*.tgz
node record.mjs /tmp/takes
ls -l /tmp/takes
mkdir -p /root/lumora-video/build
cp -r /tmp/takes /root/lumora-video/build/
echo "The portable program works"
