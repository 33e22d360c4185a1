#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then builds a program outside
# the tree against it twice: through find_package, and through pkg-config.
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
echo "installed library found by find_package and pkg-config"
