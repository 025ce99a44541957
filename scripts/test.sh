#!/usr/bin/env bash
# Builds and runs every test three times: as shipped, under AddressSanitizer + UBSan, and under
# ThreadSanitizer. Then runs each fuzzer for a few seconds. Prints summaries at the end.
set -euo pipefail
jobs=${1:-2}

# The browser tests control Chromium with a package from npm. The audience tests use Debian's servers.
node=(); command -v npm >/dev/null || node=(nodejs npm)
scripts/install_dependencies.sh chromium clang libclang-rt-dev nginx libnginx-mod-rtmp srt-tools \
  "${node[@]}"

presets=(release asan tsan fuzz)
declare -A built
for preset in "${presets[@]}"; do
  SECONDS=0
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  built[$preset]=$SECONDS
done

status=0
summaries=()
for preset in "${presets[@]}"; do
  echo "== Tests, $preset"
  log="build/$preset/tests.log"
  SECONDS=0
  # One test at a time, since each starts its own helpers and encoders, and no test is about behaviour under
  # load.
  ctest --preset "$preset" --no-tests=error -j 1 2>&1 | tee "$log" || status=1
  took="built in ${built[$preset]} s, tested in $SECONDS s"
  summaries+=("$preset: $(grep -E 'tests passed' "$log" || echo 'did not finish') ($took)")
  while read -r failed; do summaries+=("  $failed"); done < <(
    grep -oE '[0-9]+ - [^ ]+ \([A-Z][^)]*\)' "$log" | grep -v Skipped)
done

echo
printf '%s\n' "${summaries[@]}"
exit "$status"
