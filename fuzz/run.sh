#!/usr/bin/env bash
# Runs one fuzzer for so many seconds, from its kept corpus and from what earlier runs have found:
#   fuzz/run.sh PROGRAM TARGET SECONDS
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
found=$(dirname "$1")/found/$2
mkdir -p "$found"
# A target without a dictionary gets that of JSON, which does no harm.
dictionary=$here/$2.dict
[ -f "$dictionary" ] || dictionary=$here/json.dict
exec "$1" "$found" "$here/corpus/$2" -dict="$dictionary" -max_total_time="$3" -timeout=10 \
  -rss_limit_mb=1024 -artifact_prefix="$found-" -print_final_stats=1 -verbosity="${VERBOSITY:-0}"
