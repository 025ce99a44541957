#!/usr/bin/env bash
# Fails if program $1 needs a library besides glibc, needs a newer glibc than 2.36, or is too large.
# Prints what is wrong, and the size.
set -euo pipefail
program=$1
failed=0

needed=$(objdump -p "$program" |
  awk '$1 == "NEEDED" && $2 !~ /^(lib[cm]\.so\.6|ld-linux.*)$/ { printf "%s ", $2 }')
if [ -n "$needed" ]; then
  echo "$program needs $needed" >&2
  failed=1
fi
newest=$(objdump -T "$program" | grep -oE 'GLIBC_[0-9.]+' | sort -Vu | tail -n 1)
if [ "$(printf '%s\n' GLIBC_2.36 "$newest" | sort -V | tail -n 1)" != GLIBC_2.36 ]; then
  echo "$program needs $newest" >&2
  failed=1
fi
bytes=$(stat -c %s "$program")
if [ "$bytes" -gt $((12 * 1024 * 1024)) ]; then
  echo "$program has $bytes bytes, more than 12 MiB" >&2
  failed=1
fi
echo "$program: $bytes bytes, $newest"
exit "$failed"
