#!/usr/bin/env bash
# Runs the Qt example without a screen: with a helper that ends at once, with a take that can't
# start, and with a take that is saved.
#
#   tests/embedding/qt.sh EXAMPLE HELPER
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export QT_QPA_PLATFORM=offscreen
LUMORA_VIDEO_PATH=/bin/false "$1" "$work" >"$work/said" &
until grep -q "^it ended at once with status 1$" "$work/said"; do kill -0 $!; sleep 0.1; done
kill $!
said=$(LUMORA_VIDEO_PATH=$2 "$1" "$work/$(printf '%05000d' 0)" 0)
grep -q '^the path of a take is too long$' <<<"$said"
said=$(LUMORA_VIDEO_PATH=$2 "$1" "$work" 2)
grep -qE '^[1-9][0-9]+ pictures of the preview were drawn$' <<<"$said"
grep -q '^Saved ' <<<"$said"
ffmpeg -v error -xerror -nostdin -i "$work"/take-*.mp4 -f null -
