#!/usr/bin/env bash
# Runs the fuzzer PROGRAM for SECONDS:
#   fuzz/run.sh PROGRAM TARGET SECONDS
# The fuzzer starts from fuzz/corpus/TARGET and from the inputs that earlier runs found.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
found=$(dirname "$1")/found/$2
mkdir -p "$found"
# A target without its own dictionary gets json.dict. It does no harm to targets that read no JSON.
dictionary=$here/$2.dict
[ -f "$dictionary" ] || dictionary=$here/json.dict
exec "$1" "$found" "$here/corpus/$2" -dict="$dictionary" -max_total_time="$3" -timeout=10 \
  -rss_limit_mb=1024 -artifact_prefix="$found-" -print_final_stats=1 -verbosity="${VERBOSITY:-0}"
