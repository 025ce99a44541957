#!/usr/bin/env bash
# Runs the end-to-end tests and ffmpeg on this machine, and the portable program inside a new
# minimal Debian of SUITE. Some tests preload a library into the program or start the viewer. For
# these the program runs on this machine, too.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ -z "${FRESH_NAMESPACE:-}" ]; then
  exec env FRESH_NAMESPACE=1 unshare --mount --propagation private scripts/portable_e2e.sh
fi
root=$(mktemp -d /var/tmp/lumora-bare.XXXXXX)  # not in /tmp, which is mounted anew below
cleanUp() {
  for point in proc dev tmp; do umount --recursive --lazy "$root/$point" 2>/dev/null || true; done
  # If /tmp is still mounted in $root, rm would delete its files. --one-file-system prevents that
  # only if /tmp and $root are on different file systems.
  mountpoint -q "$root/tmp" || rm -rf --one-file-system "$root"
}
trap cleanUp EXIT
mmdebstrap --quiet --variant=minbase "$SUITE" "$root"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
cp /etc/hosts "$root/etc/"
# The new system gets this machine's /tmp. The mount is shared, so a file system that a test mounts
# in /tmp appears in the new system, too.
mount --bind /tmp /tmp
mount --make-shared /tmp
mount --bind /tmp "$root/tmp"
cp build/portable/lumora-video build/portable/lumora-recover "$root/usr/bin/"

tests=$PWD/build/release/tests/lumora-e2e-tests
helper=$root/lumora-video
for program in lumora-video lumora-recover; do
  printf '#!/bin/sh\nexec chroot %s /usr/bin/%s "$@"\n' "$root" "$program" >"$root/$program"
  chmod +x "$root/$program"
done
here=Faults.*:*FaultyTakes.*:Viewer.*
export TMPDIR=/tmp  # the new system sees this machine's files only in this folder
LUMORA_HELPER=$helper "$tests" --gtest_brief=1 --gtest_filter="-$here"
LUMORA_HELPER=$PWD/build/portable/lumora-video "$tests" --gtest_brief=1 --gtest_filter="$here"
