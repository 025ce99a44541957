#!/usr/bin/env bash
# Builds the fuzzers with clang and runs each for so many minutes, one per processor at a time:
#   scripts/fuzz.sh JOBS MINUTES
# What a fuzzer finds lies in build/fuzz/fuzz/found/; with a name of such a file it runs just that.
set -euo pipefail
jobs=$1
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
# Ends with a failure if one of them does.
printf '%s\0' build/fuzz/fuzz/fuzz-* | xargs -0 -n 1 -P "$jobs" bash -c 'fuzz "$0"'
