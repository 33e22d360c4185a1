#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then builds a C program
# outside the tree against it, each time with the C compiler: through
# find_package against the shared and the static library, and through
# pkg-config, plain (shared) and with --static (a static link).
# Arguments: BUILD_DIR SOURCE_DIR WORK_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
build=$1 src=$2 work=$3 cc=$4 cxx=$5
rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null

cmake -S "$src/tests/install/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$work/consumer/consumer_shared"
"$work/consumer/consumer_static"

pc_dir=$(dirname "$(find "$prefix" -name vael_apps.pc | head -1)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs vael_apps)
# shellcheck disable=SC2086
"$cc" -std=c99 "$src/tests/install/consumer/consumer.c" $flags -o "$work/consumer_pc"
LD_LIBRARY_PATH="$prefix/lib" "$work/consumer_pc"
static_flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --static --cflags --libs vael_apps)
# shellcheck disable=SC2086
"$cc" -std=c99 "$src/tests/install/consumer/consumer.c" $static_flags -static -o "$work/consumer_pc_static"
"$work/consumer_pc_static"
echo "installed library found by find_package and pkg-config"
