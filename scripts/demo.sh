#!/usr/bin/env bash
# demo.sh - builds the library and vael-scan (the `default` preset) and runs
# vael-scan over the bundled samples: the pattern list samples/patterns.txt
# against the synthetic traffic in samples/traffic/.
#
# Works on a fresh Debian 12 as root (or with sudo): installs whatever of the
# build packages is missing first. Runs from any current directory.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# shellcheck source=scripts/common.sh
. scripts/common.sh

# Prints a command, then runs it. vael-scan's status 1 ("nothing matched")
# is an answer, not a failure.
run() {
  echo
  echo "\$ $*"
  local status=0
  "$@" || status=$?
  [ "$status" -le 1 ] || { echo "demo.sh: '$1' failed with status $status" >&2; exit "$status"; }
}

install_missing "${BUILD_PACKAGES[@]}"

echo "==> building (preset default)"
cmake --preset default
cmake --build --preset default -j"$(nproc)"

scan=build/default/cli/vael-scan
traffic=(samples/traffic/*)

echo
echo "==> $(grep -c $'^[-0-9]*\t' samples/patterns.txt) patterns, ${#traffic[@]} input files"
echo "    each line below is FILE:END_OFFSET:ID, the first match of each pattern per file;"
echo "    look an ID up in samples/patterns.txt"
run "$scan" -p samples/patterns.txt "${traffic[@]}"

echo
echo "==> matches per file, first of each pattern and then every occurrence"
run "$scan" --count -p samples/patterns.txt "${traffic[@]}"
run "$scan" --count --all -p samples/patterns.txt "${traffic[@]}"

echo
echo "==> the regular expressions alone (ids 10001 and up), each line FILE:START-END:ID;"
echo "    every block size gives the same matches, in an order that may differ"
run bash -c "\"$scan\" --start -p samples/patterns.txt ${traffic[*]} | grep ':1000[0-9]\$'"
run bash -c "\"$scan\" --start --block-size 7 -p samples/patterns.txt ${traffic[*]} | grep ':1000[0-9]\$'"

echo
echo "==> the words and phrases alone (ids 11001 and up): whole words of UTF-8 text in"
echo "    several languages, and word-continuous ones that hit inside words"
run bash -c "\"$scan\" --all --start -p samples/patterns.txt ${traffic[*]} | grep ':110[0-9][0-9]\$'"

echo
echo "==> the files below samples/ that hold a match, found by walking the directory"
run "$scan" -rl -p samples/patterns.txt samples

echo
echo "==> every occurrence again, without regard to case: SQL written in lower case counts too"
run "$scan" --count --all -i -p samples/patterns.txt "${traffic[@]}"

echo
echo "==> keyword rules (samples/rules.txt): a string, then checks of what follows it"
run "$scan" -p samples/rules.txt "${traffic[@]}"

echo
echo "==> compile once and save the image; a later run loads it instead of compiling,"
echo "    and finds the same matches"
image="$(mktemp)"
trap 'rm -f "$image"' EXIT
run "$scan" -p samples/patterns.txt --save "$image"
run "$scan" --count --load "$image" "${traffic[@]}"

echo
echo "==> the library's report of the run: patterns, memory, compile time, first-tier hits and"
echo "    the matches the second tiers confirmed"
run bash -c "\"$scan\" --stats=LEVEL=PM -p samples/patterns.txt ${traffic[*]} >/dev/null"
