#!/usr/bin/env bash
# fuzz.sh TARGET SECONDS [LIBFUZZER OPTION...] - builds the libFuzzer program
# of one fuzz target with clang, AddressSanitizer and UndefinedBehaviorSanitizer
# (the `fuzz` preset) and runs it for SECONDS.
#
# The run starts from the target's checked-in corpus (fuzz/corpus/TARGET)
# and grows a working copy in build/fuzz/run/TARGET/corpus; a crashing input
# is written to build/fuzz/run/TARGET/artifacts/. An input worth keeping
# (a fixed bug's case, a new kind of input) is copied by hand into
# fuzz/corpus/TARGET, where every test run replays it.
#
# Targets are the fuzz/fuzz_*.cpp files: e.g. pattern_file, metadata,
# compile_run. Works on a fresh Debian 12: installs clang when missing.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# shellcheck source=scripts/common.sh
. scripts/common.sh

if [ $# -lt 2 ]; then
  echo "usage: $0 TARGET SECONDS [LIBFUZZER OPTION...]" >&2
  echo "targets: $(cd fuzz && ls fuzz_*.cpp | sed 's/^fuzz_//; s/\.cpp$//' | tr '\n' ' ')" >&2
  exit 2
fi
target=$1 seconds=$2
shift 2
if [ ! -f "fuzz/fuzz_$target.cpp" ]; then
  echo "$0: no fuzz target '$target' (no fuzz/fuzz_$target.cpp)" >&2
  exit 2
fi

install_missing "${BUILD_PACKAGES[@]}" clang

cmake --preset fuzz
cmake --build --preset fuzz -j"$(nproc)" --target "fuzz_$target"

work="build/fuzz/run/$target"
mkdir -p "$work/corpus" "$work/artifacts"
if [ -d "fuzz/corpus/$target" ]; then
  cp -n "fuzz/corpus/$target"/* "$work/corpus/" 2>/dev/null || true
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"
exec "build/fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1 \
  -artifact_prefix="$work/artifacts/" "$@" "$work/corpus"
