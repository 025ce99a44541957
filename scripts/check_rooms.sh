#!/usr/bin/env bash
# Checks every include of the repository against scripts/rooms.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

git rev-parse --is-inside-work-tree >/dev/null
git grep -nE '^[[:space:]]*#[[:space:]]*include' -- '*.cpp' '*.h' '*.hpp' '*.inc' | awk '
  function trim(text) { gsub(/^ +| +$/, "", text); return text }
  function contains(list, word) { return index(" " list " ", " " word " ") > 0 }
  # Returns the longest place that is this file or a folder around it, or "" if there is none.
  function placeOf(file) {
    while (!(file in rooms) && file ~ /\//) sub(/\/[^\/]*$/, "", file)
    return file in rooms ? file : ""
  }
  FILENAME != "-" {
    sub(/#.*/, "")
    if (match($0, / = /)) {
      word = trim(substr($0, 1, RSTART))
      words[word] = trim(substr($0, RSTART + 3))
    } else if (split($0, field, "|") == 3) {
      place = trim(field[1])
      rooms[place] = trim(field[2])
      libraries[place] = trim(field[3])
      for (word in words) gsub("(^| )" word "( |$)", " " words[word] " ", rooms[place])
    }
    next
  }
  {
    bad = ""
    split($0, part, ":")
    file = part[1]
    place = placeOf(file)
    if (!match($0, /[<"][^>"]*[>"]/) || /\.\.\//) bad = "has an include whose name is a macro or contains ../; this check cannot follow it"
    ours = substr($0, RSTART, 1) == "\""
    name = substr($0, RSTART + 1, RLENGTH - 2)
    split(name, folder, "/")
    public = folder[1] == "lumora"  # the public headers of the client library
    if (public) name = "client/include/" name
    if (place == "") {
      bad = "is in no place of scripts/rooms.txt"
    } else if (bad == "" && (ours || public)) {
      own = place
      sub(/^src\//, "", own)
      if (own ~ /\.[a-z]+$/) sub(/\/[^\/]*$/, "", own)
      allowed = index(name, own "/") == 1 || contains(rooms[place], folder[1])
      if (public && contains(rooms[place], "client")) allowed = 1
      bad = allowed ? "" : "may not include " name
    } else if (bad == "") {
      # Every file may include C++ headers, which have no extension. It may also include the POSIX
      # headers listed here.
      library = name ~ /\// ? folder[1] : name ~ /\.h$/ ? substr(name, 1, length(name) - 2) : ""
      posix = "sys netinet arpa fcntl netdb poll pthread spawn stdlib time unistd"
      free = library == "" || contains(posix, library) || contains(libraries[place], library)
      bad = free ? "" : "may not include <" name ">"
    }
    if (bad != "") {
      print file ":" part[2] ": " place " " bad
      failed = 1
    }
  }
  END { exit failed }
' scripts/rooms.txt - || {
  echo "scripts/rooms.txt does not allow these includes" >&2
  exit 1
}
