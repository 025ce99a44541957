#!/usr/bin/env bash
# Runs the README's commands in a new minimal Debian with git and make. The system is made in a temporary
# folder, and the committed state of this repository is cloned into it. Prints the last lines of each
# command's output, and which command failed. Needs root and half an hour.
#
#   scripts/fresh.sh [COMMAND ...]     default: "make demo" and "make test"
#
# SUITE is the Debian release (bookworm, trixie). KEEP is a folder of the clone. If every command
# succeeds, KEEP is copied into build/KEEP_TO. By default KEEP_TO is the value of SUITE.
set -euo pipefail
cd "$(dirname "$0")/.."
repository=$PWD
suite=${SUITE:-bookworm}
commands=("$@")
KEEP=${KEEP:-}
KEEP=${KEEP%/}
[ ${#commands[@]} -gt 0 ] || commands=("make demo" "make test")

if [ "$(id -u)" -ne 0 ]; then
  echo "this needs root: it makes a root file system and mounts into it" >&2
  exit 1
fi
# Uses its own mount namespace, so that nothing stays mounted however this ends.
if [ -z "${FRESH_NAMESPACE:-}" ]; then
  scripts/install_dependencies.sh mmdebstrap
  exec env FRESH_NAMESPACE=1 unshare --mount --propagation private scripts/fresh.sh "$@"
fi

root=$(mktemp -d "${TMPDIR:-/tmp}/lumora-fresh.XXXXXX")
cleanUp() {
  for point in proc dev origin; do umount --recursive --lazy "$root/$point" 2>/dev/null || true; done
  rm -rf --one-file-system "$root"
}
trap cleanUp EXIT

echo "== A minimal Debian ($suite) in $root"
mmdebstrap --quiet --variant=minbase --include=git,make,ca-certificates "$suite" "$root"
mkdir -p "$root/origin"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
mount --bind -o ro "$repository" "$root/origin"
cp /etc/hosts /etc/resolv.conf "$root/etc/"
# Downloads may need the additional certificates that this machine trusts.
for certificate in /usr/local/share/ca-certificates/*.crt; do
  [ -e "$certificate" ] && cp "$certificate" "$root/usr/local/share/ca-certificates/"
done

inside() {
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 CI=true SUITE="$suite" \
    ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} \
    chroot "$root" bash -c "$1"
}
inside "update-ca-certificates >/dev/null 2>&1
        git config --global --add safe.directory '*'
        git clone --quiet file:///origin /root/lumora-video"

failed=0
for command in "${commands[@]}"; do
  echo "== $command"
  started=$SECONDS
  log="$root/command.log"
  if inside "cd /root/lumora-video && $command" >"$log" 2>&1; then
    tail -n 5 "$log"
    echo "== $command: works, $((SECONDS - started)) s"
  else
    tail -n 60 "$log"
    echo "== $command: FAILED after $((SECONDS - started)) s"
    failed=1
  fi
done
if [ -n "$KEEP" ] && [ "$failed" -eq 0 ]; then
  kept=build/${KEEP_TO:-$suite}
  mkdir -p "$kept"
  rm -rf "${kept:?}/${KEEP##*/}"
  cp -r "$root/root/lumora-video/$KEEP" "$kept/"
fi
exit "$failed"
