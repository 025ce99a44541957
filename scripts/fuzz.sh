#!/usr/bin/env bash
# Builds the fuzzers with clang and runs each for so many minutes, one per processor at a time:
#   scripts/fuzz.sh JOBS MINUTES
# What a fuzzer finds lies in build/fuzz/fuzz/found-*; with a name of such a file it runs just that.
set -euo pipefail
jobs=$1
seconds=$(($2 * 60))
scripts/install_dependencies.sh clang libclang-rt-dev
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"

status=0
for program in build/fuzz/fuzz/fuzz-*; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || status=1; done
  target=${program##*/fuzz-}
  { VERBOSITY=1 fuzz/run.sh "$program" "$target" "$seconds" >"build/fuzz/$target.log" 2>&1 &&
      echo "$target: $(grep number_of_executed_units "build/fuzz/$target.log")" ||
      { echo "$target: see build/fuzz/$target.log"; exit 1; }; } &
done
while [ -n "$(jobs -rp)" ]; do wait -n || status=1; done
exit "$status"
