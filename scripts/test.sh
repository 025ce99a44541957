#!/usr/bin/env bash
# Builds and runs every test in the release build, the C++ ones again under AddressSanitizer + UBSan
# and under ThreadSanitizer. Then runs each fuzzer for a few seconds. Prints summaries at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-2}

# The browser tests control Chromium with a package from npm. The audience tests run nginx and an
# SRT server. The Qt example is built with Qt.
node=(); command -v npm >/dev/null || node=(nodejs npm)
scripts/install_dependencies.sh chromium clang libclang-rt-dev nginx libnginx-mod-rtmp srt-tools \
  qt6-base-dev libswscale-dev "${node[@]}"

presets=(release asan tsan fuzz)

# build PRESET PRIORITY [OPTION ...]
build() {
  cmake --preset "$1" "${@:3}" >/dev/null
  nice -n "$2" cmake --build --preset "$1" -j "$jobs"
}

status=0
summaries=()
build release 0 -DLUMORA_QT_EXAMPLE=ON
for i in "${!presets[@]}"; do
  preset=${presets[i]}
  next=${presets[i + 1]:-}
  # Tests mostly wait. So the next preset is built meanwhile, at the lowest priority.
  if [ -n "$next" ]; then
    build "$next" 19 >"build/$next.log" 2>&1 &
    building=$!
  fi
  echo "== Tests, $preset"
  log="build/$preset/tests.log"
  SECONDS=0
  ctest --preset "$preset" --no-tests=error -j 2 2>&1 | tee "$log" || status=1
  summaries+=("$preset: $(grep -E 'tests passed' "$log" || echo 'did not finish') ($SECONDS s)")
  while read -r failed; do summaries+=("  $failed"); done < <(
    grep -oE '[0-9]+ - [^ ]+ \([A-Z][^)]*\)' "$log" | grep -v Skipped)
  if [ -n "$next" ] && ! wait "$building"; then
    cat "build/$next.log"
    summaries+=("$next: did not build")
    status=1
    break
  fi
done

echo
printf '%s\n' "${summaries[@]}"
exit "$status"
