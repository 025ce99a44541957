#!/usr/bin/env bash
# Builds the fuzzers with clang. Runs JOBS fuzzers at a time, each for MINUTES:
#   scripts/fuzz.sh JOBS MINUTES
# What build/fuzz/fuzz/fuzz-TARGET finds is written to files build/fuzz/fuzz/found/TARGET-*. To
# replay such a file, start that fuzzer with the path of the file as the argument.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$1
[[ $2 =~ ^[1-9][0-9]*$ ]] || { echo "MINUTES must be a whole number above 0" >&2; exit 2; }
seconds=$(($2 * 60))
scripts/install_dependencies.sh clang libclang-rt-dev
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"

fuzz() {
  local target=${1##*/fuzz-}
  local log=build/fuzz/$target.log
  if VERBOSITY=1 fuzz/run.sh "$1" "$target" "$seconds" >"$log" 2>&1; then
    echo "$target: $(grep number_of_executed_units "$log")"
  else
    echo "$target: see $log"
    return 1
  fi
}
export -f fuzz
export seconds
# Fails if one fuzzer fails.
printf '%s\0' build/fuzz/fuzz/fuzz-* | xargs -0 -n 1 -P "$jobs" bash -c 'fuzz "$0"'
