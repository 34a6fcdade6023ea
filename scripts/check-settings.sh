#!/bin/bash
# docs/settings.md lists every ZARNRTC_* variable the code reads, and nothing else.
# "Reads" means: in C/C++, the name as a string literal, alone or before '=' (as
# getenv, the settings tables, the phone's option table and the tests that start
# child processes spell it); in scripts, a $ reference to it; in CMake, a cache
# option or an $ENV{} reference. Fails with the names that differ.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
table=docs/settings.md

# Tracked files only: build trees and node_modules are not the project's code.
tracked() {
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard -- "$@"
  else
    local args=() p
    for p in "$@"; do args+=(-o -name "${p##*/}"); done
    find . -path ./build -prune -o \( -false "${args[@]}" \) -type f -print0
  fi
}
names() { grep -ohE 'ZARNRTC_[A-Z0-9_]+' | sort -u; }

code=$(
  {
    tracked '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' | xargs -0 -r grep -ohE '"ZARNRTC_[A-Z0-9_]+[="]' || true
    tracked '*.sh' '.ci/run' | xargs -0 -r grep -ohE '\$\{?ZARNRTC_[A-Z0-9_]+' || true
    tracked '*CMakeLists.txt' '*.cmake' '*.cmake.in' |
      xargs -0 -r grep -ohE 'option\(ZARNRTC_[A-Z0-9_]+|\$ENV\{ZARNRTC_[A-Z0-9_]+' || true
    # set(NAME ... CACHE ...), possibly over several lines
    tracked '*CMakeLists.txt' '*.cmake' '*.cmake.in' |
      xargs -0 -r grep -ozPh 'set\(\s*ZARNRTC_[A-Z0-9_]+\s[^)]*?\bCACHE\b' | tr '\0' '\n' || true
  } | names
)
[ -n "$code" ] || { echo "check-settings: found no variable in the code; is this the tree?" >&2; exit 2; }

# The first column of the tables: | `NAME` |
listed=$(grep -oE '^\| *`ZARNRTC_[A-Z0-9_]+`' "$table" | names)

unlisted=$(comm -23 <(echo "$code") <(echo "$listed"))
unread=$(comm -13 <(echo "$code") <(echo "$listed"))
status=0
if [ -n "$unlisted" ]; then
  echo "check-settings: read by the code but not listed in $table:" >&2
  sed 's/^/  /' <<<"$unlisted" >&2
  status=1
fi
if [ -n "$unread" ]; then
  echo "check-settings: listed in $table but read nowhere:" >&2
  sed 's/^/  /' <<<"$unread" >&2
  status=1
fi
[ "$status" -eq 0 ] && echo "check-settings: $(wc -l <<<"$listed") variables, each read and listed"
exit "$status"
